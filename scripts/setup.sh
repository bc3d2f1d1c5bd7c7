#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the benchmarks and the
# programs need. Idempotent: quiet and quick when everything is present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ninja-build ccache
  nlohmann-json3-dev libcurl4-openssl-dev libssl-dev libsqlite3-dev
  libfmt-dev uuid-dev libcpp-httplib-dev libboost1.81-dev libcli11-dev libspdlog-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev curl openssl sqlite3 help2man
  libxml2-dev ffmpeg
  libargon2-dev chromium nginx
  postgresql libpq-dev haproxy
  python3-pytest python3-venv python3-pip python3-setuptools
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

# The console's browser test runs playwright-core (npm) under Node.js; a Node.js
# that is already installed (for example from another vendor, bringing its own
# npm) is used as it is.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  missing+=(nodejs npm)
fi

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
