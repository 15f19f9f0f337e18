@echo -off
# Compares an adapter's flash with an image. Nothing is written to flash.
#
# Its only files are qfu.tmp and qfu2.tmp, the scripts' own, which it removes.
set -d QfuFile >v QfuJunk
set -v QfuFile %1 >v QfuJunk
set -v QfuAddress 0
if not x%2 == x then
  set -v QfuAddress none
  set -v QfuAddress %2 >v QfuJunk
endif
set -v QfuAdapter none
if not x%3 == x then
  set -v QfuAdapter x%3
endif
"%JobHome%\prepare.nsh" %4 %5 %6 %7 %8 %9
if not %QfuReady% == yes then
  exit /b
endif

"%JobHome%\qfu.efi" -rfb qfu2.tmp -addr %QfuAddress% -sz %QfuSize% %QfuSelect%
set -v QfuRead 0
ls -sfo qfu2.tmp >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuRead
endif
if not %QfuRead% == %QfuSize% then
  set -v QfuResult "only %QfuRead% of %QfuSize% bytes could be read. Nothing was compared."
  exit /b
endif
comp "%1" qfu2.tmp
if %lasterror% == 0x0 then
  set -v QfuStatus 0
  set -v QfuResult "done. The flash holds %1 at address %QfuAddress%."
else
  set -v QfuStatus 1
  set -v QfuResult "FAILED. The flash does not hold %1 at address %QfuAddress%."
endif
