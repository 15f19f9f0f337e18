@echo -off
# Reads an adapter's whole flash twice and proves that both readings are the same.
#
#   backup FILE [ADAPTER [OPTION...]]
#
# FILE.new is the second reading when it differs. ADAPTER may be left away when there is one. Up to
# three words behind it go to each call of qfu: -csid 1 chooses a chip.
# Exit status: 0 FILE holds the flash, 1 it does not, 2 nothing was read.
if x%1 == x then
  echo usage: backup FILE [ADAPTER [OPTION...]]
  exit /b 2
endif
# The shell takes a name with spaces apart, and makes other files than those that were meant.
set -v QfuName %1
set -v QfuWords n
for %w in %QfuName%
  set -v QfuWords %QfuWords%n
endfor
if not %QfuWords% == nn then
  echo backup: a name with spaces cannot be used. Nothing was read.
  exit /b 2
endif
if exist %1 then
  echo backup: %1 is there already. Nothing was read.
  exit /b 2
endif
set -v QfuAdapter 0
if not x%2 == x then
  set -v QfuAdapter %2
endif

# The shell leaves a script whose redirection fails with the status of the command before it, so
# find out here whether files can be made.
copy -q "%0\..\spilist.bin" qfu.tmp >v QfuJunk
if not %lasterror% == 0x0 then
  echo backup: the chip list beside this script cannot be copied to %cwd%. Nothing was read.
  exit /b 2
endif
# qfu looks for its chip list in the current directory; one that lies there is used.
set -v QfuListIsOurs no
if not exist spilist.bin then
  copy -q qfu.tmp spilist.bin >v QfuJunk
  set -v QfuListIsOurs yes
endif

# A script that qfu writes tells the number of adapters and the size; without a chip it is empty.
set -v ADCount 1
set -v FlashSize 0
"%0\..\qfu.efi" -getparm qfuparm.nsh -adid %QfuAdapter% %3 %4 %5
if exist qfuparm.nsh then
  qfuparm.nsh
  echo -off
  rm -q qfuparm.nsh
endif
set -v QfuCount %ADCount%
set -v QfuFlash %FlashSize%
set -d ADCount >v QfuJunk
set -d DevId >v QfuJunk
set -d RevId >v QfuJunk
set -d FlashSize >v QfuJunk
if x%2 == x then
  if not %QfuCount% == 1 then
    set -v QfuStatus 2
    set -v QfuResult "backup: there are %QfuCount% adapters; say which. Nothing was read."
    goto done
  endif
endif
set -v QfuStatus 1
if %QfuFlash% == 0 then
  set -v QfuResult "backup: FAILED. Adapter %QfuAdapter% has no flash chip that is known."
  goto done
endif

# What an earlier run left must not be taken for what this one read.
rm -q "%1.new" >v QfuJunk
"%0\..\qfu.efi" -rfb "%1" -addr 0 -sz %QfuFlash% -adid %QfuAdapter% %3 %4 %5
"%0\..\qfu.efi" -rfb "%1.new" -addr 0 -sz %QfuFlash% -adid %QfuAdapter% %3 %4 %5
set -v QfuSize 0
ls -sfo "%1" >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuSize
endif
if not %QfuSize% eq %QfuFlash% then
  set -v QfuResult "backup: FAILED. %1 has %QfuSize% bytes, the flash %QfuFlash%."
  goto done
endif
comp "%1" "%1.new"
if not %lasterror% == 0x0 then
  set -v QfuResult "backup: FAILED. The two readings %1 and %1.new differ."
  goto done
endif
rm -q "%1.new"
set -v QfuStatus 0
set -v QfuResult "backup: done. %1 holds the flash, %QfuFlash% bytes read twice."

:done
rm -q qfu.tmp
if %QfuListIsOurs% == yes then
  rm -q spilist.bin
endif
echo %QfuResult%
exit /b %QfuStatus%
