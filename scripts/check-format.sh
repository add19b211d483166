#!/usr/bin/env bash
# Checks that every tracked C++ source is formatted per .clang-format; lists the files that are not.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# The Debian clang-format 14 that the style was written for; any clang-format as a fallback.
CLANG_FORMAT=${CLANG_FORMAT:-$(command -v clang-format-14 || command -v clang-format || true)}
if [[ -z "${CLANG_FORMAT}" ]]; then
    echo "check-format: clang-format not found (set CLANG_FORMAT)" >&2
    exit 2
fi

# A plain assignment, so that a failing git stops the script.
tracked=$(git ls-files -- \
    'qv/*.h' 'qv/*.cpp' 'hermite/*.h' 'hermite/*.cpp' 'io/*.h' 'io/*.cpp' \
    'overlay/*.h' 'overlay/*.cpp' 'screen/*.h' 'screen/*.cpp' 'cli/*.h' 'cli/*.cpp' 'python/*.h' 'python/*.cpp' 'fuzz/*.h' 'fuzz/*.cpp' \
    'tests/*.h' 'tests/*.cpp' 'bench/*.h' 'bench/*.cpp' 'examples/*.h' 'examples/*.cpp')
files=()
if [[ -n "${tracked}" ]]; then
    mapfile -t files <<<"${tracked}"
fi

unformatted=()
for file in "${files[@]}"; do
    if ! "${CLANG_FORMAT}" --dry-run -Werror "${file}" >/dev/null 2>&1; then
        unformatted+=("${file}")
    fi
done

if ((${#unformatted[@]} > 0)); then
    echo "check-format: ${#unformatted[@]} of ${#files[@]} files need clang-format -i:" >&2
    printf '  %s\n' "${unformatted[@]}" >&2
    exit 1
fi
echo "check-format: ${#files[@]} files formatted"
