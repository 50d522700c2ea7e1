#!/usr/bin/env bash
# lint.sh format            checks that every C++ file of the project is formatted
#                           as .clang-format says (nothing is changed)
# lint.sh tidy BUILD_DIR    runs clang-tidy (.clang-tidy) over the library's and
#                           the tool's .cpp files with BUILD_DIR's compile database
# Exit status 0 when clean, 1 on any finding, 2 on a usage or set-up error.
# CLANG_FORMAT, CLANG_TIDY and LINT_JOBS (default 2) override the defaults.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2
root=$PWD
clang_format=${CLANG_FORMAT:-clang-format}
clang_tidy=${CLANG_TIDY:-clang-tidy}
jobs=${LINT_JOBS:-2}
# The configuration files are written for this major version; another one
# formats and checks differently.
want_major=14

usage()
{
    sed -n '2,7s/^# \{0,1\}//p' "$0" >&2
    exit 2
}

need_tool()
{
    if ! command -v "$1" >/dev/null 2>&1; then
        echo "lint: $1 not found (Debian: apt-get install $2)" >&2
        exit 2
    fi
    local major
    major=$("$1" --version | sed -n 's/.*version \([0-9]*\)\..*/\1/p' | head -n 1)
    if [ "$major" != "$want_major" ]; then
        echo "lint: note: $1 is version ${major:-unknown}, the configuration is for $want_major"
    fi
}

# The project's own C++ sources and headers, relative to the root: the files git
# knows or would add, without build output and fuzzing inputs.
project_cxx_files()
{
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files --cached --others --exclude-standard -- '*.cpp' '*.cc' '*.h' '*.hpp'
    else
        find . -path ./build -prune -o -path ./.git -prune -o -type f \
            \( -name '*.cpp' -o -name '*.cc' -o -name '*.h' -o -name '*.hpp' \) -print | sed 's#^\./##'
    fi | grep -v -E '^(build/|fuzz/corpus/)' | sort -u | while read -r f; do [ -f "$f" ] && echo "$f"; done
}

run_format()
{
    need_tool "$clang_format" clang-format
    local files out sites
    mapfile -t files < <(project_cxx_files)
    if [ ${#files[@]} -eq 0 ]; then
        echo "lint: no C++ files found" >&2
        exit 2
    fi
    out=$("$clang_format" --dry-run -Werror --style=file "${files[@]}" 2>&1)
    sites=$(grep -E ': (error|warning): ' <<<"$out" | grep -v -F 'clang-format-violations' || true)
    if [ -n "$sites" ]; then  # clang-format itself failed (unreadable file, bad configuration)
        echo "$out" | head -n 20
        exit 2
    fi
    sites=$(grep -F 'clang-format-violations' <<<"$out" | sed -E 's/^(.*):([0-9]+):[0-9]+: .*/\1:\2/' | uniq)
    if [ -z "$sites" ]; then
        echo "format: ${#files[@]} files clean"
        return 0
    fi
    local per_file cfiles
    per_file=$(cut -d: -f1 <<<"$sites" | uniq -c | sort -k1,1rn -k2 | sed 's/^ */  /')
    cfiles=$(grep -c . <<<"$per_file")
    echo "format: lines to reformat, per file:"
    head -n 15 <<<"$per_file"
    [ "$cfiles" -le 15 ] || echo "  ... and $((cfiles - 15)) more files"
    echo "format: $(grep -c . <<<"$sites") lines in $cfiles files; see the changes with" \
        "'$clang_format FILE | diff FILE -', apply them with '$clang_format -i FILE...'"
    return 1
}

run_tidy()
{
    local build=${1:-}
    [ -n "$build" ] || usage
    local db="$build/compile_commands.json"
    if [ ! -f "$db" ]; then
        echo "lint: no $db; configure with: cmake -S . -B $build -DCMAKE_EXPORT_COMPILE_COMMANDS=ON" >&2
        exit 2
    fi
    need_tool "$clang_tidy" clang-tidy
    tmp=$(mktemp -d)
    trap 'rm -rf "$tmp"' EXIT

    # CMake's precompiled header is included by path; next to it lies g++'s .gch
    # once the tree was built, and clang refuses to read that. A copy of the
    # header in a directory of its own has no .gch beside it.
    local pch
    while read -r pch; do
        [ -n "$pch" ] || continue
        mkdir -p "$tmp/pch$(dirname "$pch")"
        cp "$pch" "$tmp/pch$pch"
    done < <(grep -o -E -- '-include [^ "]*cmake_pch\.hxx' "$db" | cut -d' ' -f2 | sort -u)
    mkdir -p "$tmp/db"
    sed -E "s#-include (/[^ \"]*cmake_pch\.hxx)#-include $tmp/pch\1#g" "$db" >"$tmp/db/compile_commands.json"

    local files=() missing=() f
    while read -r f; do
        if grep -q -F "\"file\": \"$root/$f\"" "$db"; then files+=("$f"); else missing+=("$f"); fi
    done < <(find src tools -name '*.cpp' | sort)
    if [ ${#files[@]} -eq 0 ]; then
        echo "lint: no .cpp files under src/ and tools/" >&2
        exit 2
    fi
    if [ ${#missing[@]} -gt 0 ]; then
        echo "lint: not in $db (not configured there?):" >&2
        printf '  %s\n' "${missing[@]}" >&2
        exit 2
    fi

    # One clang-tidy per file, each writing a file of its own so that parallel
    # runs do not interleave their output.
    # shellcheck disable=SC2016  # expanded by the inner shell
    printf '%s\n' "${files[@]}" | xargs -P "$jobs" -I{} sh -c \
        'out="$2/$(echo "$1" | tr / _).out"; "$0" --quiet -p "$3" --extra-arg=-Wno-unknown-warning-option "$1" >"$out" 2>&1 || echo "$1" >>"$out.failed"' \
        "$clang_tidy" {} "$tmp" "$tmp/db"

    # A header's finding comes once per file that includes it, under as many
    # spellings of its path: one line per finding, relative to the root.
    local findings
    findings=$(cat "$tmp"/*.out | grep -E '^[^ ]+:[0-9]+:[0-9]+: (warning|error): ' |
        sed -E -e ':a' -e 's#/[^/.][^/]*/\.\./#/#' -e 'ta' -e "s#^$root/##" | sort -u | sort -t: -k1,1 -k2,2n -k3,3n)
    local failed_quietly=()
    for f in "$tmp"/*.out.failed; do
        [ -e "$f" ] || continue
        local src
        src=$(cat "$f")
        if ! grep -q -E ': (warning|error): ' "$tmp/$(echo "$src" | tr / _).out"; then failed_quietly+=("$src"); fi
    done
    if [ ${#failed_quietly[@]} -gt 0 ]; then
        for f in "${failed_quietly[@]}"; do
            echo "lint: clang-tidy failed on $f:"
            head -n 10 "$tmp/$(echo "$f" | tr / _).out" | sed 's/^/  /'
        done
    fi
    if [ -z "$findings" ] && [ ${#failed_quietly[@]} -eq 0 ]; then
        echo "tidy: ${#files[@]} files clean"
        return 0
    fi
    [ -z "$findings" ] || echo "$findings"
    echo "tidy: $(grep -c . <<<"$findings") findings in ${#files[@]} files"
    return 1
}

case "${1:-}" in
format) [ $# -eq 1 ] || usage; run_format ;;
tidy) [ $# -eq 2 ] || usage; run_tidy "$2" ;;
*) usage ;;
esac
