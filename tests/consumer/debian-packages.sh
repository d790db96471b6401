#!/usr/bin/env bash
# Builds the Debian packages of this tree as dpkg-buildpackage does from a clean checkout, has
# lintian check them, installs them with apt, checks what the installed libraries export, builds
# the README's programs against /usr alone (CMake's find_package, pkg-config, Debian's python3;
# no -I, -L, PYTHONPATH or LD_LIBRARY_PATH), runs them against the packaged norv-collector, and
# purges the packages.
#   debian-packages.sh   (DEB_BUILD_OPTIONS as dpkg-buildpackage takes it)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
consumer="$root/tests/consumer"
unset LD_LIBRARY_PATH PYTHONPATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi

work=$(mktemp -d)
# apt reads local packages as its own unprivileged user.
chmod 755 "$work"
packages=()
cleanup() {
  if [ ${#packages[@]} -gt 0 ]; then
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq "${packages[@]}" >/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# The tracked and new files of this checkout, as a clean clone has them.
mkdir "$work/source"
git -C "$root" ls-files -z --cached --others --exclude-standard |
  (cd "$root" && tar --null --ignore-failed-read -T - -cf -) | tar -xf - -C "$work/source"
(cd "$work/source" && dpkg-buildpackage -b -uc -us >"$work/build.log" 2>&1) || {
  tail -50 "$work/build.log"; echo "dpkg-buildpackage failed"; exit 1; }
lintian --fail-on error,warning "$work"/norvanalytic_*.changes

debs=()
for deb in "$work"/*.deb; do
  case $deb in *-dbgsym_*) continue ;; esac
  debs+=("$deb")
  packages+=("$(dpkg-deb -f "$deb" Package)")
done
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${debs[@]}" >/dev/null
echo "installed: ${packages[*]}"
libdir="/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
"$root/tests/abi/check-exports.sh" "$libdir/libNorvAnalytic.so.1" NORVANALYTIC_1.0 \
  "$libdir/libNorvAnalyticQt.so.1" NORVANALYTIC_QT_1.0 "$libdir/libNorvAnalyticGtk.so.1" NORVANALYTIC_GTK_1.0

# CMake: the README's C++ and C programs, and its Qt and GTK ones built only, from /usr's
# CMake package; the two that run deliver to the packaged norv-collector (ctest).
cmake -S "$consumer" -B "$work/consumer" -G Ninja >/dev/null
found=$(sed -n 's/^NorvAnalytic_DIR:PATH=//p' "$work/consumer/CMakeCache.txt")
[ "$found" = "$libdir/cmake/NorvAnalytic" ] || {
  echo "find_package found NorvAnalytic in $found, not in the installed package"; exit 1; }
cmake --build "$work/consumer"
for target in readme_qt_snippet readme_gtk_snippet; do
  [ -x "$work/consumer/$target" ] || { echo "$target was not built"; exit 1; }
done
"$work/consumer/consumer"
ctest --test-dir "$work/consumer" --output-on-failure --no-tests=error

# pkg-config: the README's C program and its GTK program.
"$consumer/readme-block.sh" "$root/README.md" c '#include <NorvAnalytic/norv.h>' >"$work/readme.c"
cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$work/readme.c" -o "$work/readme-c" \
  $(pkg-config --cflags --libs norvanalytic)
"$consumer/run-readme-snippet.sh" "$work/readme-c" /usr/bin/norv-collector
"$consumer/readme-block.sh" "$root/README.md" c '#include <NorvAnalytic/norv_gtk.h>' >"$work/gtk.c"
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$work/gtk.c" -o "$work/readme-gtk" \
  $(pkg-config --cflags --libs norvanalytic-gtk gtk4)

# Python: Debian's python3 finds the package and the package its library.
"$consumer/readme-block.sh" "$root/README.md" python 'import sys' >"$work/readme.py"
"$consumer/run-readme-snippet.sh" /usr/bin/python3 /usr/bin/norv-collector "$work/readme.py"
