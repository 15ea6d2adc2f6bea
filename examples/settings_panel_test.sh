#!/bin/bash
# Tests the settings panel from outside, with zolctl playing the TV: settings_panel_test.sh PANEL
set -euo pipefail
command -v zolctl >/dev/null || { echo "zolctl must be in the PATH" && exit 1; }
ZOL_VCONF_DIR=$(mktemp -d)
export ZOL_VCONF_DIR ZOL_DLOG=off
panel=
trap '[ -z "$panel" ] || { kill "$panel" && wait "$panel"; } || true; rm -r "$ZOL_VCONF_DIR"' EXIT

zolctl load - <<<'{"OSDCountry": "DE", "BackgroundVolume": 5}'
touch "$ZOL_VCONF_DIR/shown"
"$1" >"$ZOL_VCONF_DIR/shown" &
panel=$!

# Waits until the panel's latest line is the text.
comes_to_show() {
    for ((tries = 0; tries < 100; ++tries)); do
        if [ "$(tail -n 1 "$ZOL_VCONF_DIR/shown")" = "$1" ]; then return; fi
        sleep 0.05
    done
    echo "expected: $1; shown: $(tail -n 1 "$ZOL_VCONF_DIR/shown")"
    return 1
}
comes_to_show "off, -, -, DE, volume 5"
zolctl set ZOLActivated on
zolctl inject BackgroundVolume 7 # what apps may not write
comes_to_show "on, -, -, DE, volume 7"
echo passed
