#!/bin/sh
# What a shell makes of the service: each message on in/shell/ID names a script, whose output goes
# to out/shell/ID, retained. The request is the name and nothing else, since a shell does not decode
# MessagePack.
# Usage: shell_loop.sh HOST PORT SCRIPTS
host=$1 port=$2 scripts=$3

trap exit TERM # after the pipeline, which a signal to the process group ends

mosquitto_sub -h "$host" -p "$port" --nodelay -q 1 -t 'in/shell/+' -F '%t %p' |
while read -r topic script; do
    lua5.2 "$scripts/$script.lua" </dev/null |
    mosquitto_pub -h "$host" -p "$port" --nodelay -q 2 -r -t "out/shell/${topic#in/shell/}" -s
done
