#!/usr/bin/env bash
# The committed zone-name tables must be exactly what the generator makes of the source lists.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
exec /usr/bin/python3 "$root/tools/tznames/gen_tznames.py" --check --root "$root"
