# shellcheck shell=bash
# SPDX-License-Identifier: MIT
#
# For scripts to source: get the Debian packages that they need.

# need_packages PACKAGE...: install those that are missing. Touches nothing, and
# asks for nothing, when all are there.
need_packages() {
    local package missing=()
    for package; do
        # A package that was removed is still known to dpkg, in another state.
        [[ "$(dpkg-query -W -f '${db:Status-Status}\n' "$package" 2> /dev/null)" == installed* ]] ||
            missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    if ! command -v apt-get > /dev/null || ! command -v "${as_root[0]:-true}" > /dev/null; then
        echo "These packages are missing and cannot be installed from here:" >&2
        echo "    ${missing[*]}" >&2
        echo "On Debian 12, as root: apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "Installing what is missing: ${missing[*]}"
    local log
    log=$(mktemp)
    if install_packages "${as_root[@]}" > "$log" 2>&1; then
        rm -f "$log"
        return 0
    fi
    cat "$log" >&2
    rm -f "$log"
    echo "The packages could not be installed; the lines above say why." >&2
    echo "Mend that (network? disk space?), or install them by hand, then start again:" >&2
    echo "    ${as_root[*]:+sudo }apt-get install ${missing[*]}" >&2
    return 1
}

# Its arguments come before each command; the packages are the caller's `missing`.
install_packages() {
    local quietly=(env DEBIAN_FRONTEND=noninteractive)
    "$@" "${quietly[@]}" apt-get update &&
        "$@" "${quietly[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}
