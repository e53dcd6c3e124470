# shellcheck shell=bash
# Shared by the scripts beside it: sourced, not run.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

die()
{
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# A temporary folder that goes, together with the processes in `children`, when the script ends,
# also on Ctrl-C.
children=()
scratch=$(mktemp -d "${TMPDIR:-/tmp}/bmcbus.XXXXXX")
clean_up()
{
    local i
    for ((i = ${#children[@]} - 1; i >= 0; i--)); do
        kill "${children[i]}" 2>/dev/null || true
        wait "${children[i]}" 2>/dev/null || true
    done
    rm -rf "$scratch"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# need PURPOSE...: the packages of packages.txt for these purposes are installed afterwards.
need()
{
    command -v dpkg-query >/dev/null ||
        die "this is not a Debian system; scripts/packages.txt names what is needed"
    local package purpose missing=()
    while read -r package purpose; do
        [[ $package != '#'* && " $* " == *" $purpose "* ]] || continue
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done <"$top/scripts/packages.txt"
    ((${#missing[@]})) || return 0

    if ((EUID != 0)); then
        die "missing packages: ${missing[*]}
Only root may install them; as root: apt-get install ${missing[*]}"
    fi
    printf 'Installing %s\n' "${missing[*]}"
    # A source that cannot be read matters only if it carries one of these packages.
    DEBIAN_FRONTEND=noninteractive apt-get -q update >"$scratch/apt" 2>&1 || true
    if ! DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends install \
        "${missing[@]}" >>"$scratch/apt" 2>&1; then
        tail -n 8 "$scratch/apt" >&2
        die "could not install ${missing[*]} (is there a network?)"
    fi
}

# Tests and the demo are about behaviour, so what compiles fast serves them best.
fast=(-Doptimization=0 -Ddebug=false)

# configure FOLDER [OPTION...]: sets up a folder below build/ with these options.
configure()
{
    local folder=$top/build/$1
    shift
    [[ ! -e $folder/build.ninja ]] || return 0
    rm -rf "$folder" # what an interrupted set-up left
    if ! meson setup "$@" "$folder" "$top" >"$scratch/setup" 2>&1; then
        cat "$scratch/setup" >&2
        return 1
    fi
}

# compile FOLDER [TARGET...]: what was asked for, or everything. The tools' words are shown when they
# matter.
compile()
{
    local folder=$top/build/$1
    shift
    if [[ -t 1 ]]; then
        ninja -C "$folder" "$@"
    elif ! ninja -C "$folder" "$@" >"$scratch/compile" 2>&1; then
        grep -v '^\[[0-9]*/[0-9]*\]' "$scratch/compile" >&2 || true
        return 1
    fi
}

# build FOLDER [OPTION...] [-- TARGET...]: both. Fails when either does.
build()
{
    local folder=$1 options=()
    shift
    while (($#)) && [[ $1 != -- ]]; do
        options+=("$1")
        shift
    done
    shift $(($# ? 1 : 0))
    configure "$folder" "${options[@]}" && compile "$folder" "$@"
}
