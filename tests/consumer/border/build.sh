#!/bin/bash
# Compiles ../main.cpp against the installed library with further flags, and links it in several ways:
# with the static library, with it and without the sections that nobody needs, and with a shared
# one. Either every program runs, or none links and the linker names what to define, or that the
# library has another word size.
# Usage: build.sh runs|refused|other-word-size COMPILER [FLAG...]
#        PKG_CONFIG_PATH tells where mlnn.pc is; LIBRARY_FLAGS, what else linking needs, since the
#        library was compiled with it.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
expected=$1
compiler=$2
flags=("${@:3}")
read -ra cflags <<<"$(pkg-config --cflags mlnn)"
read -ra libs <<<"$(pkg-config --libs mlnn)"
read -ra library_flags <<<"${LIBRARY_FLAGS:-}"
libdir=$(pkg-config --variable libdir mlnn)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# A processor need not have what a flag lets the compiler use; such a program is linked only.
can_run() {
  local flag
  for flag in "${flags[@]}"; do
    case $flag in
      -mavx*) grep -qw "${flag#-m}" /proc/cpuinfo || return ;;
    esac
  done
}

# The library of the installation may be a shared one already.
make_shared() {
  if [[ -e $libdir/libmlnn.a ]]; then
    "$compiler" "${library_flags[@]}" "${flags[@]}" -shared -o "$folder/libmlnn.so" \
      -Wl,--version-script="$here/../../../cmake/exports.map" \
      -Wl,--whole-archive "$libdir/libmlnn.a" -Wl,--no-whole-archive
  else
    cp -L "$libdir"/libmlnn.so* "$folder"
  fi
}

case $expected in
  refused) words=define_EIGEN_MAX_ALIGN_BYTES_as_mlnn_does_in_its_CMake_target_and_pkg_config ;;
  other-word-size) words='skipping incompatible .*libmlnn' ;;
esac

# Links the object with further flags of the linker.
expect_of() {
  local way=$1
  if [[ $expected == runs ]]; then
    "$compiler" "${library_flags[@]}" "${flags[@]}" -o "$folder/stranger" "$folder/main.o" "${@:2}"
    ! can_run || (cd "$folder" && LD_LIBRARY_PATH=$folder ./stranger)
  elif "$compiler" "${library_flags[@]}" "${flags[@]}" -o "$folder/stranger" "$folder/main.o" \
    "${@:2}" 2>"$folder/said"; then
    echo "$way: expected the linker to refuse the program, but it did not" >&2
    return 1
  elif ! grep -q "$words" "$folder/said"; then
    echo "$way: expected the linker to say '$words', but found:" >&2
    cat "$folder/said" >&2
    return 1
  fi
  echo "$way: $expected"
}

"$compiler" -std=c++17 "${cflags[@]}" -ffunction-sections -fdata-sections "${flags[@]}" \
  -c "$here/../main.cpp" -o "$folder/main.o"
expect_of "as installed" -Wl,-rpath,"$libdir" "${libs[@]}"
expect_of "without unused sections" -Wl,--gc-sections -Wl,-rpath,"$libdir" "${libs[@]}"
[[ $expected != other-word-size ]] || exit 0
make_shared
expect_of "shared" -L"$folder" "${libs[@]}"
