#!/bin/bash
# Installs the missing packages of the named groups in packaging/debian-packages.txt.
# Silent and quick when none is missing; prints apt's output only when it failed.
#   scripts/install-packages.sh GROUP...
set -euo pipefail

readonly LIST=${BASH_SOURCE[0]%/*}/../packaging/debian-packages.txt
# Debian would start a server on port 5432 with the package. The lab starts its own, elsewhere.
readonly NO_CLUSTER=/etc/postgresql-common/createcluster.d/no-main-cluster.conf
# Debian asks this program before it starts the service of a package; 101 forbids it. The benchmark
# itself starts the servers that it measures, for as long as it needs them.
readonly NO_SERVICES=/usr/sbin/policy-rc.d

missing_packages() {
    local installed package group
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 2>/dev/null)
    for group in "$@"; do
        while read -r package; do
            grep -qxF "installed $package" <<<"$installed" || echo "$package"
        done < <(awk -v group="$group" '$1 == group { print $2 }' "$LIST")
    done
}

# Runs a command as root.
as_root() {
    local -a privilege=()
    ((EUID == 0)) || privilege=(sudo)
    "${privilege[@]}" "$@"
}

# Runs apt-get without questions; its output goes to the log.
apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 -q -y "$@" </dev/null >>"$log" 2>&1
}

# Fetches the package lists only if they are missing or too old.
install_missing() {
    apt_get install --no-install-recommends "$@" && return
    apt_get update && apt_get install --no-install-recommends "$@"
}

if ! command -v dpkg-query >/dev/null; then
    echo "This is not a Debian system; the packages needed are listed in $LIST." >&2
    exit 1
fi
mapfile -t missing < <(missing_packages "$@")
((${#missing[@]})) || exit 0
if ((EUID != 0)) && ! command -v sudo >/dev/null; then
    echo "Missing packages, to be installed by root: ${missing[*]}" >&2
    exit 1
fi

echo "Installing ${#missing[@]} packages: ${missing[*]}"
log=$(mktemp)
forbidding=()
clean_up() {
    rm -f "$log"
    ((${#forbidding[@]} == 0)) || as_root rm -f "${forbidding[@]}"
}
trap clean_up EXIT
if [[ " ${missing[*]} " == *" postgresql "* && ! -e $NO_CLUSTER ]]; then
    forbidding+=("$NO_CLUSTER")
    as_root mkdir -p "${NO_CLUSTER%/*}"
    echo 'create_main_cluster = false' | as_root tee "$NO_CLUSTER" >/dev/null
fi
if [[ ! -e $NO_SERVICES ]]; then
    forbidding+=("$NO_SERVICES")
    printf '#!/bin/sh\nexit 101\n' | as_root tee "$NO_SERVICES" >/dev/null
    as_root chmod 755 "$NO_SERVICES"
fi
if ! install_missing "${missing[@]}"; then
    cat "$log" >&2
    echo "Packages could not be installed; see above." >&2
    exit 1
fi
