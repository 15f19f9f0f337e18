@echo -off
# Backup, flash and verify of one adapter. Out: JobDone, and QfuResult, which says why.
if %JobBackup% == yes then
  set -v JobSaved none
  for %n run (0 99)
    if %JobSaved% == none then
      if not exist all%n.bin then
        set -v JobSaved all%n.bin
      endif
    endif
  endfor
  "%JobHome%\tool.nsh" backup %JobSaved% %JobAdapter%%JobChipWords%
  if not %QfuStatus% == 0 then
    set -v JobDone refused
    set -v QfuResult "no backup: %QfuResult%"
    exit /b
  endif
  set -v JobOne "%JobOne% saved=%JobSaved%"
endif
"%JobHome%\tool.nsh" flash %JobImage% %JobAddress% %JobAdapter%%JobChipWords%
if %QfuStatus% == 1 then
  exit /b
endif
if %QfuStatus% == 2 then
  set -v JobDone refused
  exit /b
endif
set -v JobDone done
if not "%QfuResult%" == "done. The flash held %JobImage% already. Nothing was written." then
  exit /b
endif
if not %JobAgain% == yes then
  set -v JobDone held
  exit /b
endif
set -v JobDone failed
"%JobHome%\qfu.efi" -wbf %JobImage% -addr %JobAddress% -y -adid %JobAdapter%%JobChipWords%
"%JobHome%\tool.nsh" verify %JobImage% %JobAddress% %JobAdapter%%JobChipWords%
if %QfuStatus% == 0 then
  set -v JobDone done
endif
