@echo -off
# Runs the script %1 for the adapter of which walk.nsh keeps what it saw under %2, with JobAdapter, JobIds, JobPlace
# and JobAt set. The shell puts in %2 before it looks for variables.
set -v JobAdapter %JobNumber%2%
set -v JobIds "%JobIds%2%"
set -v JobPlace "%JobPlace%2%"
set -v JobAt "%JobAt%2%"
%1
