# Sourced by ./run and ./test: installs what the machine lacks, and does nothing when it lacks
# nothing.

# need PROBE=PACKAGE...: a probe is the name of a command, or the path of a file.
need() {
    local item probe missing=()
    for item in "$@"; do
        probe=${item%%=*}
        if [[ $probe == /* && ! -e $probe ]] ||
            { [[ $probe != /* ]] && ! command -v "$probe" >/dev/null; }; then
            missing+=("${item#*=}")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    if ! command -v apt-get >/dev/null; then
        echo "missing here, under the names Debian gives them: ${missing[*]}" >&2
        return 1
    fi
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "please install as root: apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "installing ${missing[*]}"
    # A list that cannot be renewed may still be good enough.
    "${as_root[@]}" apt-get -qq update || true
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends \
        -o Dpkg::Use-Pty=0 install "${missing[@]}" </dev/null >/dev/null
}

# What it takes to build the daemon and its client.
need_to_build() {
    need cmake=cmake g++=g++ ninja=ninja-build
}

# forget_elsewhere FOLDER: a build folder that came along when the tree was copied or moved would
# build the other tree.
forget_elsewhere() {
    local cache=$1/CMakeCache.txt
    if [ -e "$cache" ] && ! grep -qxF "CMAKE_CACHEFILE_DIR:INTERNAL=$1" "$cache"; then
        rm -rf "$1"
    fi
}
