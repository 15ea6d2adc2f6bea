# Sourced by the other scripts: makes sure that this machine has what they need.
# shellcheck shell=bash

case ${1-} in
    -h | --help) # the comment at the script's head
        for script in {scripts,scripts/checks,.ci}/"${0##*/}"; do
            [ ! -f "$script" ] || sed -n '2,/^[^#]/ s/^# \{0,1\}//p' "$script"
        done
        exit 0
        ;;
esac

# What it takes to build everything but the benchmarks.
# shellcheck disable=SC2034 # used by the scripts that source this one
build_packages="g++ cmake patch ninja-build pkg-config rapidjson-dev liblmdb-dev libcli11-dev libgtest-dev libgmock-dev"

# install_missing PACKAGE...: installs those of the packages that are not there; touches nothing when all are. Those of
# another processor are called PACKAGE:ARCHITECTURE.
install_missing() {
    local package own architecture found missing=()
    if ! command -v dpkg-query >/dev/null; then
        echo "This is not Debian or like it; install by hand what corresponds to: $*" >&2
        return 0
    fi
    own=$(dpkg --print-architecture)
    for package in "$@"; do
        case $package in
            *:*) architecture=${package#*:} ;;
            *) architecture=$own ;;
        esac
        # shellcheck disable=SC2016 # dpkg-query's own variables
        found=$(dpkg-query -W -f '${db:Status-Status} ${Architecture}\n' "$package" 2>/dev/null || true)
        # One line for each processor that it is installed for.
        if ! grep -qxE "installed ($architecture|all)" <<<"$found"; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    local as_root=()
    if [ "$(id -u)" != 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "Packages are missing, and there is no sudo; run as root: apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    for package in "${missing[@]}"; do
        case $package in *:*) "${as_root[@]}" dpkg --add-architecture "${package#*:}" ;; esac
    done
    local quietly=(env DEBIAN_FRONTEND=noninteractive apt-get -q)
    "${as_root[@]}" "${quietly[@]}" update ||
        echo "Not every list of packages could be fetched; going on with those that are there" >&2
    if ! "${as_root[@]}" "${quietly[@]}" install -y --no-install-recommends "${missing[@]}"; then
        echo "apt-get could not install ${missing[*]}; see its messages above" >&2
        return 1
    fi
}
