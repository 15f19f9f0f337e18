@echo -off
# Reads an adapter's whole flash twice and compares.
#
# Ctrl-C between two commands ends a script where it stands. So the work is in lib\backup.nsh, and this one
# tidies up behind it and has a status in any case.
if x%1 == x or x%1 == x-h or x%1 == x--help then@USAGE@
  if x%1 == x then
    exit /b 2
  endif
  exit /b 0
endif
set -v QfuTool backup
set -v QfuHome "%0\.."
set -v QfuNothing "Nothing was read."
set -v QfuStatus 2
set -v QfuResult "stopped. %QfuNothing%"
set -v QfuListIsOurs no
"%QfuHome%\lib\backup.nsh" %1 %2 %3 %4 %5 %6 %7 %8 %9
"%QfuHome%\lib\finish.nsh"
echo "backup: %QfuResult%"
exit /b %QfuStatus%
