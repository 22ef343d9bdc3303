# Shared helpers for the integration scripts (sourced).
set -euo pipefail
: "${VMFT:?}" "${KORU_SOURCE_DIR:?}" "${KORU_SHARED_DIR:?}" "${KORU_WORK_DIR:?}"
mkdir -p "$KORU_WORK_DIR"

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit 77; }
need() { for tool in "$@"; do command -v "$tool" >/dev/null || skip "$tool not installed"; done; }
