# shellcheck shell=bash
# What scripts/demo and scripts/test share: where things are, titles, and building. To be sourced.

source_directory=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cores=$(nproc)

# A checkout elsewhere compiles the same: what one has built, the next one need not build again.
export CCACHE_BASEDIR=$source_directory CCACHE_NOHASHDIR=1

# title TEXT: a heading that stands out in a long output.
title() {
    if [[ -t 1 ]]; then
        printf '\n\033[1m== %s\033[0m\n' "$*"
    else
        printf '\n== %s\n' "$*"
    fi
}

# build PRESET [TARGET...]: configures and builds in build/PRESET, quietly where nothing is to be said.
build() {
    local preset=$1
    shift
    local directory=$source_directory/build/$preset
    mkdir -p "$directory"
    if ! (cd "$source_directory" && cmake --preset "$preset" >"$directory/configure.log" 2>&1); then
        cat "$directory/configure.log" >&2
        return 1
    fi
    ninja -C "$directory" -j "$cores" "$@"
}

# as_root COMMAND...: for what only root may do.
as_root() {
    if [[ $EUID -eq 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}
