#!/usr/bin/python3
"""ds389-tool.py TOOL ARGS... -- runs a 389 Directory Server tool (dscreate, dsctl, dsconf)
with lib389's systemd support switched off, so that it starts and stops ns-slapd itself
instead of calling systemctl (which fails on a host without systemd).
DS389_PID_FILE, when set, is the pid file the tool passes to ns-slapd (instead of
/run/dirsrv/slapd-NAME.pid)."""
import os
import runpy
import shutil
import sys

import lib389.paths

lib389.paths.Paths.with_systemd = property(lambda self: False)
if os.environ.get("DS389_PID_FILE"):
    lib389.paths.Paths.pid_file = property(lambda self: os.environ["DS389_PID_FILE"])

if len(sys.argv) < 2:
    sys.exit("usage: ds389-tool.py dscreate|dsctl|dsconf ARGS...")
tool = shutil.which(sys.argv[1], path="/usr/sbin:/usr/bin") or sys.argv[1]
sys.argv = [tool] + sys.argv[2:]
runpy.run_path(tool, run_name="__main__")
