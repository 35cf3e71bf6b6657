#!/usr/bin/env bash
# The unit and end-to-end suites under the thread sanitizer: too slow for
# every CI run, so it is run by hand before a release and after changes to
# threads or locks. Options go to ctest.
set -euo pipefail
exec "$(dirname "${BASH_SOURCE[0]}")/sanitize.sh" thread "$@"
