#!/usr/bin/env bash
# Installs the Debian packages that running (run), packaging (package) or testing (test) needs, and only those
# missing.
set -euo pipefail

purpose=${1:-test}
run_packages=(cmake ninja-build g++ pkg-config libgmime-3.0-dev libcurl4-gnutls-dev qt6-base-dev libxcb1-dev xdg-utils
              qt6-webengine-dev libcups2-dev qt6-translations-l10n libetpan-dev libgnutls28-dev libsecret-1-dev)
package_packages=("${run_packages[@]}" dpkg-dev lintian desktop-file-utils g++-mingw-w64-x86-64-posix nsis)
test_packages=("${package_packages[@]}" libgtest-dev googletest clang libclang-rt-14-dev
               g++-mingw-w64-x86-64-posix wine64 python3-aiosmtpd openssl postfix curl
               xvfb xauth trayer xdotool xclip x11-utils imagemagick cups printer-driver-cups-pdf poppler-utils
               dovecot-imapd dbus-daemon gnome-keyring libsecret-tools)

case "$purpose" in
    run) wanted=("${run_packages[@]}") ;;
    package) wanted=("${package_packages[@]}") ;;
    test) wanted=("${test_packages[@]}") ;;
    *) echo "usage: $0 run|package|test" >&2; exit 2 ;;
esac

missing=()
for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
