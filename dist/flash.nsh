@echo -off
# Programs an image into an adapter's flash and proves that it is there.
#
#   flash IMAGE [ADDRESS [ADAPTER [OPTION...]]]
#
# IMAGE.old receives what the range held before, IMAGE.new what it holds afterwards when that is not
# the image. Without ADDRESS it is 0; ADAPTER may be left away when there is one. Up to three words
# behind it go to each call of qfu: -y answers the question before writing, -csid 1 chooses a chip.
# Exit status: 0 the flash holds the image, 1 it does not, 2 nothing was written.
if x%1 == x then
  echo usage: flash IMAGE [ADDRESS [ADAPTER [OPTION...]]]
  exit /b 2
endif
# The shell takes a name with spaces apart, and makes other files than those that were meant.
set -v QfuName %1
set -v QfuWords n
for %w in %QfuName%
  set -v QfuWords %QfuWords%n
endfor
if not %QfuWords% == nn then
  echo flash: a name with spaces cannot be used. Nothing was written.
  exit /b 2
endif
if not exist %1 then
  echo flash: %1 is not there. Nothing was written.
  exit /b 2
endif
ls "%1.old" >v QfuJunk
if %lasterror% == 0x0 then
  echo flash: %1.old holds what an earlier run saved. Move it away first. Nothing was written.
  exit /b 2
endif
set -v QfuAddress 0
if not x%2 == x then
  set -v QfuAddress %2
endif
set -v QfuAdapter 0
if not x%3 == x then
  set -v QfuAdapter %3
endif

# The shell leaves a script whose redirection fails with the status of the command before it, so
# find out here whether files can be made.
copy -q "%0\..\spilist.bin" qfu.tmp >v QfuJunk
if not %lasterror% == 0x0 then
  echo flash: the chip list beside this script cannot be copied to %cwd%. Nothing was written.
  exit /b 2
endif
# qfu looks for its chip list in the current directory; one that lies there is used.
set -v QfuListIsOurs no
if not exist spilist.bin then
  copy -q qfu.tmp spilist.bin >v QfuJunk
  set -v QfuListIsOurs yes
endif

set -v QfuStatus 2
if x%3 == x then
  # A script that qfu writes tells the number of adapters; without a chip the script is empty.
  set -v ADCount 1
  "%0\..\qfu.efi" -getparm qfuparm.nsh -adid 0
  if exist qfuparm.nsh then
    qfuparm.nsh
    echo -off
    rm -q qfuparm.nsh
  endif
  set -v QfuCount %ADCount%
  set -d ADCount >v QfuJunk
  set -d DevId >v QfuJunk
  set -d RevId >v QfuJunk
  set -d FlashSize >v QfuJunk
  if not %QfuCount% == 1 then
    set -v QfuResult "flash: there are %QfuCount% adapters; say which. Nothing was written."
    goto done
  endif
endif
ls -sfo "%1" >a qfu.tmp
parse qfu.tmp FileInfo 3 >v QfuSize
if %QfuSize% == 0 then
  set -v QfuResult "flash: %1 is empty. Nothing was written."
  goto done
endif

"%0\..\qfu.efi" -rfb "%1.old" -addr %QfuAddress% -sz %QfuSize% -adid %QfuAdapter% %4 %5 %6
set -v QfuSaved 0
ls -sfo "%1.old" >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuSaved
  if not %QfuSaved% == %QfuSize% then
    rm -q "%1.old"
  endif
endif
if not %QfuSaved% == %QfuSize% then
  set -v QfuResult "flash: only %QfuSaved% of %QfuSize% bytes could be saved. Nothing was written."
  goto done
endif

# What an earlier run left must not be taken for what this one read.
rm -q "%1.new" >v QfuJunk
"%0\..\qfu.efi" -wbf "%1" -addr %QfuAddress% -adid %QfuAdapter% %4 %5 %6
"%0\..\qfu.efi" -rfb "%1.new" -addr %QfuAddress% -sz %QfuSize% -adid %QfuAdapter% %4 %5 %6
comp "%1" "%1.new"
if not %lasterror% == 0x0 then
  set -v QfuStatus 1
  set -v QfuResult "flash: FAILED. The flash holds %1.new, not %1; it held %1.old before."
  goto done
endif
rm -q "%1.new"
set -v QfuStatus 0
set -v QfuResult "flash: done. The flash holds %1; it held %1.old before."

:done
rm -q qfu.tmp
if %QfuListIsOurs% == yes then
  rm -q spilist.bin
endif
echo %QfuResult%
exit /b %QfuStatus%
