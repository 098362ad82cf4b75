#pragma once

#include <string>
#include <vector>

/* The daemon's log, taken apart. A message may itself hold line ends (the traces of requests and
 * replies do), so records are found by what stands before and behind them, not by lines. */

namespace system_test {

struct log_record {
    std::string colour; /* the code before the time stamp, "" in plain text */
    std::string stamp;  /* "2024-05-06 07:08:09 ", with its blank */
    std::string level;  /* the prefix, "debug *** ", with its blank */
    std::string text;   /* the message */
    std::string reset;  /* the code behind the message, "" in plain text */
};

/* All whole records in order. Bytes that belong to none come as a record whose text alone is set.
 */
std::vector<log_record> parse_log(const std::string& text);

/* The messages alone, of those records whose message holds one of the words (all when there are
 * none). */
std::vector<std::string> log_messages(const std::string& text,
                                      const std::vector<std::string>& words = {});

} // namespace system_test
