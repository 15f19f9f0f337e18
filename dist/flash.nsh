@echo -off
# Programs an image into an adapter's flash and proves that it is there.
#
# Ctrl-C between two commands ends a script where it stands. So the work is in lib\flash.nsh, and this one
# tidies up behind it and has a status in any case.
if x%1 == x or x%1 == x-h or x%1 == x--help then@USAGE@
  if x%1 == x then
    exit /b 2
  endif
  exit /b 0
endif
set -v QfuTool flash
set -v QfuHome "%0\.."
set -v QfuNothing "Nothing was written."
set -v QfuStatus 2
set -v QfuResult "stopped. %QfuNothing%"
set -v QfuListIsOurs no
set -d QfuOld >v QfuJunk
"%QfuHome%\lib\flash.nsh" %1 %2 %3 %4 %5 %6 %7 %8 %9
"%QfuHome%\lib\finish.nsh"
# A backup of what is still in the flash only takes a number.
if %QfuStatus% == 2 then
  if not "x%QfuOld%" == x then
    rm -q "%QfuOld%" >v QfuJunk
  endif
endif
echo "flash: %QfuResult%"
exit /b %QfuStatus%
