#!/bin/bash
# The scripts: scripts_test.sh SOURCE_DIR
# Each tells its use alone when asked. Packages that are there for several processors are not installed again, and a list
# that cannot be fetched does not keep others from being installed.
set -euo pipefail
cd "$1"
for script in .ci/run $(grep -rlE '^#!.*bash' scripts); do
    [ "$(timeout 20 "$script" --help | head -n 1)" = "$(sed -n '2s/^# //p' "$script")" ] || { echo "FAILED: $script --help" && exit 1; }
done
. scripts/common.sh
id() { echo 0; } # root
dpkg() { echo amd64; }
dpkg-query() { sed -n "s/^${*: -1}=//p" <<<$'one=installed all\ntwo=installed amd64\ntwo=installed i386\nother=installed i386'; }
env() { echo "${*: -2}" >&3 && [[ $* != *update ]]; } # apt-get
asked=$(install_missing one two other new 3>&1 >/dev/null 2>&1)
[ "$asked" = $'-q update\nother new' ] || { echo "FAILED: a missing package gave: $asked" && exit 1; }
