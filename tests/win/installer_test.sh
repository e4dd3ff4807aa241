#!/usr/bin/env bash
# VelmoraPhoneSetup.exe in a fresh Wine prefix, on an X display of its own:
#   1. a silent install with /AUTOSTART puts the program, its uninstaller, the
#      Start-menu shortcut, the Run value and the Add/Remove Programs entry in
#      place; the installed phone starts, shows its window and quits when a
#      second start asks it to (velphone.exe --exit); a silent uninstall then
#      removes all that, and our sip: handler, but keeps the user's data
#      folder and another program's tel: handler;
#   2. a second install, with the phone left running, and a silent uninstall
#      with /DELETEDATA: the uninstaller stops the phone itself and removes
#      the data folder too.
# Usage: installer_test.sh SETUP.EXE WORK_FOLDER
# The work folder is emptied first; the test starts Xvfb and Wine's server and
# stops both when it ends, passing or failing. A passing run deletes its prefix.
set -euo pipefail

setup=$1
work=$2

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver
for tool in "$wine" "$wineserver" Xvfb xdotool; do
  command -v "$tool" >/dev/null || { echo "installer test: $tool is missing (scripts/setup installs it)"; exit 1; }
done
[[ -f "$setup" ]] || { echo "installer test: no installer at $setup"; exit 1; }

rm -rf "$work"
mkdir -p "$work"
log="$work/wine.log"
export WINEPREFIX="$work/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
start=$SECONDS
xvfb_pid=""
phone_pid=""

cleanup() {
  local status=$?
  [[ -z "$phone_pid" ]] || kill "$phone_pid" 2>/dev/null || true
  timeout 20 "$wineserver" -k >/dev/null 2>&1 || true
  timeout 20 "$wineserver" -w >/dev/null 2>&1 || true
  if [[ -n "$xvfb_pid" ]]; then
    kill "$xvfb_pid" 2>/dev/null || true
    wait "$xvfb_pid" 2>/dev/null || true
  fi
  if ((status != 0)) && [[ -s "$log" ]]; then
    echo "---- last lines of $log ----"
    tail -n 30 "$log"
  elif ((status == 0)); then
    rm -rf "$WINEPREFIX" # some 700 MB; a failed run keeps it to look into
  fi
  echo "installer test: $( ((status == 0)) && echo passed || echo FAILED ) in $((SECONDS - start)) s"
}
trap cleanup EXIT

fail() {
  echo "installer test: FAILED: $*"
  exit 1
}

# wait_for SECONDS DESCRIPTION COMMAND...: polls COMMAND until it succeeds;
# fails the test after SECONDS.
wait_for() {
  local seconds=$1 what=$2 deadline=$((SECONDS + $1))
  shift 2
  until "$@"; do
    ((SECONDS < deadline)) || fail "waited ${seconds} s for $what"
    sleep 0.2
  done
}

# Runs a Windows program to its end, for at most two minutes (an installer
# stuck on a dialog fails the test rather than hanging it), its output to the
# log, never to CTest's pipe (a Wine service started on the way would hold
# that open).
run_wine() {
  timeout 120 "$wine" "$@" </dev/null >>"$log" 2>&1
}

# Prints a registry value's data, or fails (status 1) when there is none. An
# empty name is the key's default value. Wine's output goes to a file: a Wine
# service started by this call would hold a pipe open.
reg_value() { # key name
  local query=(/v "$2") shown=$2
  [[ -n "$2" ]] || query=(/ve) shown="(Default)"
  "$wine" reg query "$1" "${query[@]}" </dev/null >"$work/reg.out" 2>>"$log" || return 1
  tr -d '\r' <"$work/reg.out" | sed -n "s/^ *$shown *REG_[A-Z_]* *//p" | grep . || return 1
}
no_reg_value() { ! reg_value "$@" >/dev/null; }

phone_window() { xdotool search --name '^Velmora Phone$' >/dev/null 2>&1; }
no_phone_window() { ! phone_window; }
missing() { [[ ! -e "$1" ]]; }

# Every Windows process of the prefix has ended (the server quits then).
wine_idle() { timeout "$1" "$wineserver" -w >/dev/null 2>&1; }

# ---- An X display and a fresh prefix ---------------------------------------

# Xvfb picks a free display number and writes it once it takes connections.
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp </dev/null >"$work/xvfb.log" 2>&1 3>"$work/display" &
xvfb_pid=$!
display_known() { grep -q '^[0-9]' "$work/display"; }
wait_for 20 "Xvfb to start (see $work/xvfb.log)" display_known
export DISPLAY=":$(head -n 1 "$work/display")"

run_wine wineboot -i || fail "wineboot could not make the prefix"
user_folder=$(find "$WINEPREFIX/drive_c/users" -mindepth 1 -maxdepth 1 -type d ! -name Public | head -n 1)
[[ -d "$user_folder/AppData" ]] || fail "no user folder in the new prefix"
echo "installer test: prefix ready in $((SECONDS - start)) s"

program="$user_folder/AppData/Local/Programs/Velmora Phone"
data="$user_folder/AppData/Roaming/Velmora Phone"
shortcut="$user_folder/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Velmora Phone.lnk"
run_key='HKCU\Software\Microsoft\Windows\CurrentVersion\Run'
uninstall_key='HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall\VelmoraPhone'
exe_windows='C:\users\'"$(basename "$user_folder")"'\AppData\Local\Programs\Velmora Phone\velphone.exe'

start_phone() {
  "$wine" "$program/velphone.exe" "$@" </dev/null >>"$log" 2>&1 &
  phone_pid=$!
  wait_for 30 "the installed phone's window" phone_window
}

# ---- 1. Install with autostart; uninstall keeps the data -------------------

run_wine "$setup" /S /AUTOSTART || fail "the silent install failed"
[[ -f "$program/velphone.exe" && -f "$program/uninstall.exe" ]] || fail "velphone.exe and uninstall.exe not installed"
if command -v x86_64-w64-mingw32-objdump >/dev/null; then
  ! x86_64-w64-mingw32-objdump -h "$program/velphone.exe" | grep -q '\.debug_' || fail "the installed velphone.exe is not stripped"
fi
[[ -f "$shortcut" ]] || fail "no Start-menu shortcut"
run_value=$(reg_value "$run_key" "Velmora Phone") || fail "no Run value for starting with Windows"
[[ "$run_value" == "\"$exe_windows\" --minimized" ]] || fail "Run value is '$run_value'"
[[ "$(reg_value "$uninstall_key" DisplayName)" == "Velmora Phone" ]] || fail "no Add/Remove Programs entry"
echo "installer test: installed in $((SECONDS - start)) s"

start_phone
run_wine "$program/velphone.exe" --exit || fail "velphone.exe --exit failed"
wait_for 20 "velphone.exe --exit to close the running phone" no_phone_window
wait "$phone_pid" 2>/dev/null || true
phone_pid=""

# Link handlers: ours goes with the program, another program's stays.
run_wine reg add 'HKCU\Software\Classes\sip\shell\open\command' /ve /d "\"$exe_windows\" \"%1\"" /f
run_wine reg add 'HKCU\Software\Classes\tel\shell\open\command' /ve /d '"C:\Other\dialer.exe" "%1"' /f
mkdir -p "$data"
echo "Ada <sip:ada@example.org>" >"$data/contacts.txt"

run_wine "$program/uninstall.exe" /S || fail "the silent uninstall failed to start"
# The uninstaller runs on from a copy of itself in the temp folder.
wine_idle 90 || fail "the uninstaller did not finish"
missing "$program" || fail "the program folder is still there: $(ls "$program")"
missing "$shortcut" || fail "the Start-menu shortcut is still there"
no_reg_value "$run_key" "Velmora Phone" || fail "the Run value is still there"
no_reg_value "$uninstall_key" DisplayName || fail "the Add/Remove Programs entry is still there"
no_reg_value 'HKCU\Software\Classes\sip\shell\open\command' "" || fail "our sip: handler is still there"
[[ "$(reg_value 'HKCU\Software\Classes\tel\shell\open\command' "")" == *dialer.exe* ]] ||
  fail "another program's tel: handler was removed"
[[ -f "$data/contacts.txt" ]] || fail "the uninstall removed the user's data"
echo "installer test: uninstalled, data kept, in $((SECONDS - start)) s"

# ---- 2. Uninstall with the phone running and /DELETEDATA --------------------

run_wine "$setup" /S || fail "the second silent install failed"
no_reg_value "$run_key" "Velmora Phone" || fail "a Run value without /AUTOSTART"
start_phone
run_wine "$program/uninstall.exe" /S /DELETEDATA || fail "the second silent uninstall failed to start"
wine_idle 90 || fail "the uninstaller did not finish (or left the phone running)"
phone_pid=""
no_phone_window || fail "the uninstaller left the phone running"
missing "$program" || fail "the program folder is still there: $(ls "$program")"
missing "$data" || fail "/DELETEDATA kept the data folder"
