#!/bin/bash
# Builds ../main.cpp as `stranger` in the current folder by what pkg-config says alone.
# Usage: build.sh COMPILER [FLAG...]     PKG_CONFIG_PATH tells where mlnn.pc is.
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
pkg-config --exists --print-errors 'mlnn >= 0.2'
# Splitting the flags at blanks is how pkg-config is meant to be used.
# shellcheck disable=SC2046
"$@" -std=c++17 -o stranger "$source_dir/main.cpp" $(pkg-config --cflags --libs mlnn)
