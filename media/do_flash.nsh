@echo -off
# Programs an image into an adapter's flash and proves that it is there.
#
# IMAGE.old000, or the next number that is free, receives what the range held before, IMAGE.new000 what
# it holds afterwards when that is not the image. qfu.tmp and qfu2.tmp are the scripts' own.
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
echo "flash: %1 with %QfuSize% bytes goes to address %QfuAddress%."

# The first free number, digit by digit: the shell cannot count, and a walk over all names takes long.
set -v QfuNumber none
for %h run (0 9)
  if %QfuNumber% == none then
    if not exist "%1.old%h99" then
      set -v QfuNumber %h
    endif
  endif
endfor
set -v QfuDigits %QfuNumber%
set -v QfuNumber none
for %t run (0 9)
  if %QfuNumber% == none then
    if not exist "%1.old%QfuDigits%%t9" then
      set -v QfuNumber %t
    endif
  endif
endfor
set -v QfuDigits %QfuDigits%%QfuNumber%
set -v QfuNumber none
for %o run (0 9)
  if %QfuNumber% == none then
    if not exist "%1.old%QfuDigits%%o" then
      if not exist "%1.new%QfuDigits%%o" then
        set -v QfuNumber %o
      endif
    endif
  endif
endfor
if %QfuNumber% == none then
  set -v QfuResult "no backup name is free up to %1.old999. Move the old ones away. Nothing was written."
  exit /b
endif
set -v QfuOld "%1.old%QfuDigits%%QfuNumber%"
set -v QfuNew "%1.new%QfuDigits%%QfuNumber%"

"%JobHome%\qfu.efi" -rfb "%QfuOld%" -addr %QfuAddress% -sz %QfuSize% %QfuSelect%
set -v QfuSaved 0
ls -sfo "%QfuOld%" >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuSaved
endif
if not %QfuSaved% == %QfuSize% then
  set -v QfuResult "only %QfuSaved% of %QfuSize% bytes could be saved. Nothing was written."
  exit /b
endif
comp "%1" "%QfuOld%" >v QfuJunk
if %lasterror% == 0x0 then
  rm -q "%QfuOld%"
  set -v QfuStatus 0
  set -v QfuResult "done. The flash held %1 already. Nothing was written."
  exit /b
endif

# What is read back needs room, too. Afterwards no file must be there that could pass for it.
setsize %QfuSize% "%QfuNew%" >v QfuJunk
set -v QfuRoom %lasterror%
rm -q "%QfuNew%" >v QfuJunk
if not %QfuRoom% == 0x0 then
  set -v QfuResult "there is no room for the bytes that are read back. Nothing was written."
  exit /b
endif
# Ctrl-C during a discovery leaves a shorter list, and a break or a loose board may have made the first
# one so. When it comes during the discovery of the call that writes, qfu remembers it and writes nothing.
"%JobHome%\qfu.efi" -l %QfuSelect% >v QfuJunk
if not "%QfuJunk%" == "%QfuList%" then
  set -v QfuResult "qfu -l no longer finds the same adapters and chips. Nothing was written."
  exit /b
endif

set -v QfuStatus 1
set -v QfuResult "FAILED. It was stopped while it wrote; the flash held %QfuOld% before."
"%JobHome%\qfu.efi" -wbf "%1" -addr %QfuAddress% -y %QfuSelect%
"%JobHome%\qfu.efi" -rfb "%QfuNew%" -addr %QfuAddress% -sz %QfuSize% %QfuSelect%
comp "%1" "%QfuNew%"
if %lasterror% == 0x0 then
  rm -q "%QfuNew%"
  set -v QfuStatus 0
  set -v QfuResult "done. The flash holds %1; it held %QfuOld% before."
  exit /b
endif
set -v QfuRead 0
ls -sfo "%QfuNew%" >a qfu.tmp
if %lasterror% == 0x0 then
  parse qfu.tmp FileInfo 3 >v QfuRead
endif
if not %QfuRead% == %QfuSize% then
  set -v QfuResult "FAILED. Only %QfuRead% of %QfuSize% bytes could be read back. The flash held %QfuOld% before."
  exit /b
endif
comp "%QfuOld%" "%QfuNew%" >v QfuJunk
if %lasterror% == 0x0 then
  rm -q "%QfuNew%"
  set -v QfuResult "FAILED. The flash reads as it did before, like %QfuOld%, not like %1."
  exit /b
endif
set -v QfuResult "FAILED. The flash holds %QfuNew%, not %1; it held %QfuOld% before."
