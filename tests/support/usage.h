#pragma once

#include <string>

/* What -h prints when the program is called `program`. */
inline std::string usage(const std::string& program) {
    return "usage: " + program +
           "    <command> [options] \n"
           "   -v   --version                            打印版本信息\n"
           "   -d   --daemon                             以daemon方式运行\n"
           "   -p   --port = xxxx                        指定端口号\n"
           "   -a   --addr = /xxx/xxx                    指定域套接字路径，在unix套接字上侦听\n"
           "   -l   --loglevel = [debug/info/warn/error] 指定日志输出级别\n"
           "   -f   --logfile=xxxxx                      xxx可以是stdout, syslog,\n"
           "                                             /tmp/xxx.sock, /path/to/regular/file\n"
           "                                             以及localhost:port\n"
           "   -h   --help                               打印帮助信息\n";
}
