#!/bin/sh
# Writes the banner's facts about the working copy as <build_record.h>:  build_record.sh SOURCE_DIR OUTPUT_DIR
#
# The record is kept while the facts stay the same, so that all builds of a tree carry one build time and nothing is
# compiled again for a new minute. The build time of an unmodified working copy is its revision's own time, so that
# whoever builds a revision, wherever and whenever, gets the same bytes. A modified one has the time of its build. With
# SOURCE_DATE_EPOCH set, the build time is that moment. Without version control the record says revision 0 of the day
# of the build.
set -eu
source=$1
output=$2
mkdir -p "$output"

in_git() { git -C "$source" "$@" 2>/dev/null; }
stamp() { TZ=UTC date -d "@$1" '+%Y/%m/%d %H:%M:%S'; }
# What stands in a banner field: printable ASCII without quotes or backslashes, cut to the field.
clean() { printf '%s' "$1" | LC_ALL=C tr -cd ' !#-[]-~' | cut -c "1-$2"; }

revision=0 range=0 mixed=no modified=no date= url=
if in_git rev-parse HEAD >/dev/null; then
    revision=$(in_git rev-list --count HEAD)
    range=$revision
    date=$(stamp "$(in_git log -1 --format=%ct)")
    if [ "$(in_git rev-parse --is-shallow-repository)" = true ]; then mixed=yes; fi
    if [ -n "$(in_git status --porcelain --untracked-files=no)" ]; then
        modified=yes
    else
        SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(in_git log -1 --format=%ct)}
    fi
    # A location that others can use: no user name, no password, no path of this machine.
    url=$(in_git config --get remote.origin.url || true)
    case "$url" in
    *://*) url=$(printf '%s' "$url" | sed -E 's#^([a-z+]+://)[^/@]*@#\1#') ;;
    *@*:*) url=${url#*@} ;;
    *) url= ;;
    esac
    case "$url" in file://*) url= ;; esac
fi

facts="$revision|$date|$range|$mixed|$modified|$url|${SOURCE_DATE_EPOCH:-}"
if [ -f "$output/build_record.h" ] && [ "$(cat "$output/facts" 2>/dev/null)" = "$facts" ]; then exit 0; fi
build_time=$(stamp "${SOURCE_DATE_EPOCH:-$(date +%s)}")
date=${date:-$build_time}

cat > "$output/build_record.h.new" <<RECORD
// Made by the build from the working copy.
#pragma once

#define BUILD_RECORD_REVISION "$(clean "$revision" 31)"
#define BUILD_RECORD_DATE "$date"
#define BUILD_RECORD_BUILD_TIME "$build_time"
#define BUILD_RECORD_REVISION_RANGE "$(clean "$range" 31)"
#define BUILD_RECORD_MIXED "$mixed"
#define BUILD_RECORD_MODIFIED "$modified"
#define BUILD_RECORD_URL "$(clean "$url" 255)"
RECORD
mv "$output/build_record.h.new" "$output/build_record.h"
printf '%s\n' "$facts" > "$output/facts"
