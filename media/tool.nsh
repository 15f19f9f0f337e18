@echo -off
# Runs do_%1.nsh, which is backup, flash or verify, with the words that follow. The scripts beside it are for
# jobs only; their names keep away from the names of programs, since the shell prefers a script.
#
# Ctrl-C between two commands ends a script where it stands. So the work is in a script of its own, and this one
# tidies up after it and has a status in any case.
set -v QfuTool %1
set -v QfuNothing "Nothing was written."
if %1 == backup then
  set -v QfuNothing "Nothing was read."
endif
if %1 == verify then
  set -v QfuNothing "Nothing was compared."
endif
set -v QfuStatus 2
set -v QfuResult "stopped. %QfuNothing%"
set -v QfuListIsOurs no
set -d QfuOld >v QfuJunk
"%JobHome%\do_%1.nsh" %2 %3 %4 %5 %6 %7 %8 %9
rm -q qfu.tmp >v QfuJunk
rm -q qfu2.tmp >v QfuJunk
if %QfuListIsOurs% == yes then
  rm -q spilist.bin
endif
# A backup of what is still in the flash only takes a number.
if %QfuStatus% == 2 then
  if not "x%QfuOld%" == x then
    rm -q "%QfuOld%" >v QfuJunk
  endif
endif
echo "%QfuTool%: %QfuResult%"
exit /b %QfuStatus%
