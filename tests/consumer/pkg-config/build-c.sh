#!/bin/bash
# Builds ../c/main.c as `stranger` in the current folder by what pkg-config says alone; the libraries
# of a static mlnn's own are asked for by --static.
# Usage: build-c.sh COMPILER [FLAG...]     PKG_CONFIG_PATH tells where mlnn.pc is.
set -euo pipefail

source_dir=$(cd "$(dirname "$0")/.." && pwd)
# Splitting the flags at blanks is how pkg-config is meant to be used.
# shellcheck disable=SC2046
"$@" -std=c99 -o stranger "$source_dir/c/main.c" $(pkg-config --cflags --libs --static mlnn)
