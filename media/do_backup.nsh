@echo -off
# Reads an adapter's whole flash twice and proves that both readings are the same.
#
# FILE.new is the second reading when it differs. qfu.tmp and qfu2.tmp are the scripts' own.
if exist %1 then
  set -v QfuResult "%1 is there already. Nothing was read."
  exit /b
endif
# The shell ends a script that loops over a name which it cannot make a file of.
copy -q "%JobHome%\spilist.bin" %1 >v QfuJunk
if not %lasterror% == 0x0 then
  set -v QfuResult "the file %1 cannot be made. Nothing was read."
  exit /b
endif
rm -q %1
set -d QfuFile >v QfuJunk
set -v QfuFile %1 >v QfuJunk
set -v QfuAdapter none
if not x%2 == x then
  set -v QfuAdapter x%2
endif
"%JobHome%\prepare.nsh" %3 %4 %5 %6 %7 %8 %9
if not %QfuReady% == yes then
  exit /b
endif
if exist "%1.new" then
  set -v QfuResult "%1.new, from an earlier run, is there already. Nothing was read."
  exit /b
endif
set -v QfuStatus 1
set -v QfuResult "FAILED. It was stopped."
"%JobHome%\qfu.efi" -rfb "%1" -addr 0 -sz %QfuFlash% %QfuSelect%
"%JobHome%\qfu.efi" -rfb "%1.new" -addr 0 -sz %QfuFlash% %QfuSelect%
set -v QfuSize 0
ls -sfo "%1" >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuSize
endif
if not %QfuSize% eq %QfuFlash% then
  set -v QfuResult "FAILED. %1 has %QfuSize% bytes, the flash %QfuFlash%."
  exit /b
endif
comp "%1" "%1.new"
if not %lasterror% == 0x0 then
  set -v QfuResult "FAILED. The two readings %1 and %1.new differ."
  exit /b
endif
rm -q "%1.new"
set -v QfuStatus 0
set -v QfuResult "done. %1 holds the flash, %QfuFlash% bytes read twice."
