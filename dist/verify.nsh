@echo -off
# Compares an adapter's flash with an image.
#
# Ctrl-C between two commands ends a script where it stands. So the work is in lib\verify.nsh, and this one
# tidies up behind it and has a status in any case.
if x%1 == x or x%1 == x-h or x%1 == x--help then@USAGE@
  if x%1 == x then
    exit /b 2
  endif
  exit /b 0
endif
set -v QfuTool verify
set -v QfuHome "%0\.."
set -v QfuNothing "Nothing was compared."
set -v QfuStatus 2
set -v QfuResult "stopped. %QfuNothing%"
set -v QfuListIsOurs no
"%QfuHome%\lib\verify.nsh" %1 %2 %3 %4 %5 %6 %7 %8 %9
"%QfuHome%\lib\finish.nsh"
echo "verify: %QfuResult%"
exit /b %QfuStatus%
