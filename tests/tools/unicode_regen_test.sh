#!/usr/bin/env bash
# The committed Unicode tables must be exactly what the generator makes of the
# installed character data. Without the data there is nothing to compare with.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
data="${UNICODE_DATA_DIR:-/usr/share/unicode}"

if [[ ! -f "$data/UnicodeData.txt" ]]; then
    echo "skipped: unicode-data not installed ($data/UnicodeData.txt missing)"
    exit 77  # ctest reports it as skipped
fi

exec python3 "$root/tools/unicode/gen_unicode_tables.py" --check --data "$data" --root "$root"
