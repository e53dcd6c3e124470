# shellcheck shell=bash
# Shared by the scripts beside it: sourced, not run.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

die()
{
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# A temporary folder that goes, together with the processes in `children`, when the script ends,
# also on Ctrl-C.
children=()
scratch=$(mktemp -d "${TMPDIR:-/tmp}/bmcbus.XXXXXX")
# A socket's path has a limit of its own.
if ((${#scratch} > 80)); then
    rmdir "$scratch"
    scratch=$(mktemp -d /tmp/bmcbus.XXXXXX)
fi
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

# locked NAME COMMAND...: runs it while no other script of this tree holds that name.
locked()
{
    local name=$1 descriptor status=0
    shift
    { mkdir -p "$top/build" && [[ -w $top/build ]]; } 2>/dev/null ||
        die "cannot write to $top/build: make the tree writable, or work in a copy of it"
    exec {descriptor}>"$top/build/.$name.lock"
    if ! flock --nonblock "$descriptor"; then
        printf 'Waiting for another script that uses build/%s\n' "$name"
        flock "$descriptor"
    fi
    "$@" || status=$?
    flock --unlock "$descriptor" # also where a program that was started meanwhile lives on
    exec {descriptor}>&-
    return "$status"
}

# need PURPOSE...: the packages of packages.txt for these purposes are installed afterwards.
need()
{
    command -v dpkg-query >/dev/null ||
        die "this is not a Debian system; scripts/packages.txt names what is needed"
    missing "$@"
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        die "missing packages: ${missing[*]}
Only root may install them; as root: apt-get install ${missing[*]}"
    fi
    locked packages install_missing "$@"
}

# missing PURPOSE...: fills the list of that name.
missing()
{
    missing=()
    local package purpose
    while read -r package purpose; do
        [[ $package != '#'* && " $* " == *" $purpose "* ]] || continue
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed* ]] ||
            missing+=("$package")
    done <"$top/scripts/packages.txt"
}

install_missing()
{
    missing "$@" # another script may have installed them meanwhile
    ((${#missing[@]})) || return 0
    printf 'Installing %s\n' "${missing[*]}"
    # A source that cannot be read matters only if it carries one of these packages.
    DEBIAN_FRONTEND=noninteractive apt-get -q update >"$scratch/apt" 2>&1 || true
    if ! DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends \
        -o DPkg::Lock::Timeout=600 install "${missing[@]}" >>"$scratch/apt" 2>&1; then
        tail -n 8 "$scratch/apt" >&2
        die "could not install ${missing[*]} (is there a network?)"
    fi
}

# Tests and the demo are about behaviour, so what compiles fast serves them best.
fast=(-Doptimization=0 -Ddebug=false)

# made_for FOLDER: the tree that a build folder was set up for; nothing for no whole one.
made_for()
{
    [[ -e $1/build.ninja ]] || return 0
    /usr/bin/python3 -c '
import json, sys
with open(sys.argv[1] + "/meson-info/meson-info.json", encoding="utf-8") as file:
    print(json.load(file)["directories"]["source"])' "$1" 2>/dev/null || true
}

# configure FOLDER [OPTION...]: sets up a folder below build/ with these options.
configure()
{
    local folder=$top/build/$1 before
    shift
    before=$(made_for "$folder")
    [[ $before != "$top" ]] || return 0
    [[ ! $before ]] || printf 'The tree was in %s before: %s is made anew\n' "$before" "$folder"
    rm -rf "$folder" # of another place, or what an interrupted set-up left
    if ! meson setup "$@" "$folder" "$top" >"$scratch/setup" 2>&1; then
        cat "$scratch/setup" >&2
        return 1
    fi
}

# progress NAME: passes on how far ninja is, a line each tenth of the way.
progress()
{
    awk -v name="$1" 'match($0, /^\[[0-9]+\/[0-9]+\]/) {
        split(substr($0, 2, RLENGTH - 2), done, "/")
        tenth = int(10 * done[1] / done[2])
        if (done[2] >= 10 && tenth != last) {
            printf "%s: %d of %d steps\n", name, done[1], done[2]
            fflush()
        }
        last = tenth
    }'
}

# compile FOLDER [TARGET...]: what was asked for, or everything. The tools' words are shown when they
# matter.
compile()
{
    local name=build/$1 folder=$top/build/$1
    shift
    if [[ -t 1 ]]; then
        ninja -C "$folder" "$@"
    elif ! ninja -C "$folder" "$@" 2>&1 | tee "$scratch/compile" | progress "$name"; then
        grep -v '^\[[0-9]*/[0-9]*\]' "$scratch/compile" >&2 || true
        return 1
    fi
}

# build FOLDER [OPTION...] [-- TARGET...]: both, alone. Fails when either does.
build() { locked "$1" configure_and_compile "$@"; }

configure_and_compile()
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
