#!/usr/bin/env bash
# The Debian packages as a host author meets them: scripts/package builds them (a Release
# build kept in build/package), dpkg-deb unpacks them into a throwaway root, and the examples
# the dev package carries build against the unpacked files, through the CMake package and
# through pkg-config, and run against the packaged kpcore serving the weather service.
#   check_package.sh SOURCE_DIR WORK_DIR
set -euo pipefail
source_dir=$1
work=$2

fail() { echo "check_package: $*" >&2; exit 1; }
expect() { grep -qE -- "$2" <<<"$1" || fail "expected /$2/ in: $1"; }

rm -rf "$work"
mkdir -p "$work"
"$source_dir/scripts/package" --output "$work/debs" >"$work/package.log" 2>&1 || { cat "$work/package.log" >&2; exit 1; }
runtime=$(ls "$work"/debs/kpframeworkcorelogic_*.deb)
dev=$(ls "$work"/debs/kpframeworkcorelogic-dev_*.deb)
root=$work/root
dpkg-deb -x "$runtime" "$root"
dpkg-deb -x "$dev" "$root"
usr=$root/usr
libdir=$usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# What goes where: versioned libraries, the tool and its manual in the runtime package; the
# link-time names, headers and build files in the dev package.
runtime_files=$(dpkg-deb -c "$runtime")
dev_files=$(dpkg-deb -c "$dev")
for library in KPFrameworkCoreLogic TarvixContracts; do
  soname=$(readelf -d "$libdir/lib$library.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  expect "$soname" "^lib$library\.so\.[0-9]+(\.[0-9]+)?$"
  expect "$runtime_files" "/$soname -> lib$library\.so\."
  expect "$dev_files" "/lib$library\.so -> $soname$"
  ! grep -q "/lib$library\.so -> " <<<"$runtime_files" || fail "the runtime package holds lib$library.so"
done
expect "$runtime_files" "/usr/bin/kpcore$"
expect "$runtime_files" "/usr/share/man/man1/kpcore\.1\.gz$"
expect "$runtime_files" "/usr/share/bash-completion/completions/kpcore$"
! grep -q "/usr/include/" <<<"$runtime_files" || fail "the runtime package holds headers"
expect "$dev_files" "/usr/include/kp/version\.h$"
expect "$dev_files" "/usr/include/tarvix/service\.h$"
expect "$dev_files" "/cmake/KPFrameworkCoreLogic/KPFrameworkCoreLogicConfig\.cmake$"
expect "$dev_files" "/pkgconfig/kpframeworkcorelogic\.pc$"
# dpkg-shlibdeps found what the binaries link against.
expect "$(dpkg-deb -f "$runtime" Depends)" "libcurl4.*libsqlite3-0|libsqlite3-0.*libcurl4"
expect "$(dpkg-deb -f "$dev" Depends)" "^kpframeworkcorelogic \(= "

examples=$usr/share/doc/kpframeworkcorelogic-dev/examples
cmake -S "$examples" -B "$work/examples" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$usr" \
      >"$work/examples.log" 2>&1 || { cat "$work/examples.log" >&2; fail "configuring the examples failed"; }
cmake --build "$work/examples" >>"$work/examples.log" 2>&1 || { cat "$work/examples.log" >&2; fail "building the examples failed"; }

export LD_LIBRARY_PATH=$libdir
export HOME=$work/home XDG_CACHE_HOME=$work/cache XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data
mkdir -p "$HOME"
bin=$work/examples
for consumer in consumer/consumer_cmake consumer/consumer_pkgconfig; do
  expect "$("$bin/$consumer")" "^KPFrameworkCoreLogic [0-9]"
done
expect "$("$usr/bin/kpcore" --version)" "^kpcore [0-9]"

"$usr/bin/kpcore" serve --quiet >"$work/serve.out" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  # The server's shell may not have made the file yet.
  base=$(head -n1 "$work/serve.out" 2>/dev/null || true)
  [[ $base == http* ]] && break
  sleep 0.1
done
[[ $base == http* ]] || fail "kpcore serve printed no URL: $(cat "$work/serve.out")"

forecast=$(timeout 60 "$bin/kp_forecast" "$base")
expect "$forecast" "first call: from the service, [0-9]+ hours"
expect "$forecast" "second call: from the cache"
# One at a time by priority, whatever the order they were added in (low, normal, high).
expect "$(timeout 60 "$bin/kp_request_queue" "$base/" | tr '\n' ';')" "^high: HTTP [0-9]+[^;]*;normal: HTTP [0-9]+[^;]*;low: HTTP"
expect "$(timeout 60 "$bin/kp_cache_inspector")" "[1-9][0-9]* entries"
expect "$(timeout 60 "$bin/kp_connectivity_monitor")" "^connection: (none|wifi|cellular)"
echo "packages: $(basename "$runtime") $(basename "$dev"), examples built and run"
