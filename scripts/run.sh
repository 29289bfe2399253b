#!/usr/bin/env bash
# Installs what is missing, builds the program and starts it; arguments go to the program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh run
cmake --preset release >/dev/null
cmake --build --preset release --target VelmarTaskScheduler velmar-client
exec build/release/app/VelmarTaskScheduler "$@"
