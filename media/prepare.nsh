@echo -off
# What flash, verify and backup do first: see that the words make sense, find the adapter and the chip
# and say which they are. Nothing is written to flash here.
#
#   prepare OPTION...
#
# In:  QfuTool, JobHome (the folder of the scripts), QfuNothing (what to say when it stops),
#      QfuFile, QfuAdapter (x and the number, or none), and QfuAddress when the file is an image.
# Out: QfuSize (bytes of the image), QfuSelect (words that lead qfu to the adapter and its chip), QfuList
#      (what qfu -l says with them), QfuFlash (bytes of the chip).
#      QfuReady is yes when the work can begin. Otherwise QfuResult says why not.
set -v QfuReady no
set -v QfuChip none

# The shell takes a word with a minus before it for an option of its own.
if "x%QfuFile%" == x then
  set -v QfuResult "a name cannot begin with a minus sign; see %QfuTool% -h."
  goto refuse
endif
if not %QfuTool% == backup then
  if not exist "%QfuFile%" then
    set -v QfuResult "%QfuFile% is not there."
    goto refuse
  endif
endif
# A word such as -y in place of the address would be an option for qfu.
if not %QfuTool% == backup then
  if not isint(%QfuAddress%) then
    set -v QfuResult "the address must be a number, such as 0x1000 or 4096."
    goto refuse
  endif
endif
# The shell takes a name with spaces apart, and makes other files than those that were meant. One with
# wildcards it expands.
set -v QfuMany n
for %w in . %QfuFile%
  set -v QfuMany %QfuMany%n
  set -v QfuName %w
endfor
if not "%QfuMany% %QfuName%" == "nnn %QfuFile%" then
  set -v QfuResult "a name with spaces or wildcards cannot be used."
  goto refuse
endif

set -v QfuWanted %QfuAdapter%
if %QfuWanted% == none then
  set -v QfuWanted x0
endif
set -v QfuAt none
set -v QfuTarget nn
for %i run (0 5)
  if %QfuAt% == none then
    if %QfuWanted% == x%i then
      set -v QfuAt %i
    else
      set -v QfuTarget %QfuTarget%n
    endif
  endif
endfor
if %QfuAt% == none then
  set -v QfuResult "the adapter must be a number from 0 to 5."
  goto refuse
endif
set -v QfuSelect " -adid %QfuAt%"

:option
if x%1 == x then
  # An empty word must not hide those behind it.
  if not x%2%3%4%5%6%7 == x then
    set -v QfuResult "an empty word stands before %2."
    goto refuse
  endif
  goto options_end
endif
set -v QfuKnown no
if x%1 == x-csid or x%1 == x-cvid or x%1 == x-cdid then
  set -v QfuKnown yes
endif
# qfu takes the first of two.
for %w in %QfuSelect%
  if x%w == x%1 then
    set -v QfuKnown no
  endif
endfor
if %QfuKnown% == no then
  set -v QfuResult "the word %1 cannot stand here; see %QfuTool% -h."
  goto refuse
endif
# The shell hands ten words to a script and drops the rest, so a value can be lost.
if x%2 == x then
  set -v QfuResult "the word %1 needs a value."
  goto refuse
endif
if x%1 == x-csid then
  set -v QfuChip " %2"
endif
set -v QfuSelect "%QfuSelect% %1 %2"
shift
shift
goto option
:options_end

# The shell leaves a script whose redirection fails with the status of the command before it, so
# find out here whether files can be made.
copy -q "%JobHome%\spilist.bin" qfu.tmp >v QfuJunk
if not %lasterror% == 0x0 then
  set -v QfuResult "the chip list beside this script cannot be copied to %cwd%; is there room?"
  goto refuse
endif
# qfu looks for its chip list in the current directory; one that lies there is used.
if not exist spilist.bin then
  copy -q qfu.tmp spilist.bin >v QfuJunk
  set -v QfuListIsOurs yes
endif

if not %QfuTool% == backup then
  ls -sfo "%QfuFile%" >a qfu.tmp
  parse qfu.tmp FileInfo 3 -i 1 >v QfuSize
  if %QfuSize% == 0 then
    set -v QfuResult "%QfuFile% is empty."
    goto refuse
  endif
endif

# What is kept of the list. The shell puts variables into a line one after another, in the order in which they were
# made, and each goes through all that those before it have put there. So the list, which is long, is made
# anew behind all others.
set -v QfuSeen n
set -v QfuPart other
if %QfuTarget% == nn then
  set -v QfuPart before
endif
set -v QfuMine none
set -v Qfu1 none
set -v Qfu2 none
set -v Qfu3 none
set -v Qfu4 none
set -v QfuText "0"
set -v QfuFlash 0
set -d QfuList >v QfuJunk

# With one adapter qfu takes it whatever number it is given, and for a number beyond the list it does
# nothing and says nothing. So the number must be in the list.
"%JobHome%\qfu.efi" -l %QfuSelect% >v QfuList
if not %lasterror% == 0x0 then
  echo "%QfuList%"
  set -v QfuResult "qfu found no adapter to work on."
  goto refuse
endif
# This file stays empty when the adapter has no chip.
"%JobHome%\qfu.efi" -getparm qfu2.tmp %QfuSelect% >v QfuJunk
echo ShellCommand,^"qfu^" >a qfu.tmp
type qfu2.tmp >>a qfu.tmp
parse qfu.tmp "set FlashSize" 1 >v QfuText
for %w in %QfuText%
  set -v QfuFlash %w
endfor

# The adapter's lines of the list: "ports" is the fifth word of each adapter. What stands between two
# of them goes into a file, so that the shell can tell its lines apart. The whole list cannot: the shell
# reads a file to its first empty line, and there is one behind a chip that does not answer. Most words
# pass only the first line here.
for %w in %QfuList%
  if "%w" == ports or not %QfuPart% == other then
    if "%w" == ports then
      set -v QfuSeen %QfuSeen%n
      set -v QfuPart other
      if %QfuSeen%n == %QfuTarget% then
        set -v QfuPart before
      endif
      if %QfuSeen% == %QfuTarget% then
        set -v QfuPart mine
        set -v QfuMine "%Qfu1%%Qfu2%%Qfu3%%Qfu4%"
      endif
    endif
    if %QfuPart% == mine then
      set -v QfuMine "%QfuMine% %w"
    endif
    if %QfuPart% == before then
      set -v Qfu1 "%Qfu2%"
      set -v Qfu2 "%Qfu3%"
      set -v Qfu3 "%Qfu4%"
      set -v Qfu4 " %w"
    endif
  endif
endfor
set -v QfuTotal n
for %c run (1 6)
  set -v QfuTotal %QfuTotal%n
  if %QfuTotal% == %QfuSeen% then
    set -v QfuCount %c
  endif
endfor
if "%QfuMine%" == none then
  echo "%QfuList%"
  set -v QfuResult "there is no adapter %QfuAt%; the number of adapters is %QfuCount%."
  goto refuse
endif
if %QfuAdapter% == none then
  if not %QfuCount% == 1 then
    echo "%QfuList%"
    set -v QfuResult "there are %QfuCount% adapters; say which."
    goto refuse
  endif
endif
if %QfuFlash% == 0 then
  echo "%QfuList%"
  set -v QfuResult "adapter %QfuAt% has no flash chip that is known on the chip select asked for."
  goto refuse
endif
echo ShellCommand,^"qfu^" >a qfu.tmp
echo "%QfuMine%" >>a qfu.tmp
parse qfu.tmp " VenId" 1 >v QfuText
echo "%QfuTool%: adapter %QfuAt%, %QfuText%"
# Of two chips qfu takes the one on chip select 0.
set -d QfuText >v QfuJunk
if %QfuChip% == none or %QfuChip% == 0 then
  parse qfu.tmp " cs0" 1 >v QfuText
endif
if "x%QfuText%" == x then
  parse qfu.tmp " cs1" 1 >v QfuText
endif
echo "%QfuTool%: chip %QfuText%"

if %QfuTool% == backup then
  set -v QfuReady yes
  exit /b
endif
if %QfuSize% ugt %QfuFlash% then
  set -v QfuResult "%QfuFile% with %QfuSize% bytes is larger than the chip with %QfuFlash%."
  goto refuse
endif
# qfu drops what does not fit into 32 bits of an address.
if %QfuAddress% uge %QfuFlash% then
  set -v QfuResult "address %QfuAddress% is behind the end of the chip with %QfuFlash% bytes."
  goto refuse
endif
if %QfuTool% == flash then
  # qfu says itself whether the image fits: it asks when it does. The key that answers comes from a file
  # that begins with another letter than Y, so nothing is written.
  echo ShellCommand,^"qfu^" >a qfu2.tmp
  "%JobHome%\qfu.efi" -wbf "%QfuFile%" -addr %QfuAddress% %QfuSelect% <a qfu.tmp >>a qfu2.tmp
  set -d QfuText >v QfuJunk
  parse qfu2.tmp "Press" 1 >v QfuText
  if "x%QfuText%" == x then
    type qfu2.tmp
    set -v QfuResult "%QfuFile% does not fit at address %QfuAddress%; see above."
    goto refuse
  endif
endif
set -v QfuReady yes
exit /b

:refuse
set -v QfuResult "%QfuResult% %QfuNothing%"
