@echo -off
# Does the job on one adapter, and says in one line what came of it.
\job\plan.nsh
set -v JobOne "%JobLine% adapter=%JobAdapter% place=%JobAt% device=%JobDevice% image=%JobImage%"
set -v JobOne "%JobOne% address=%JobAddress% size=%JobImageSize% sha256=%JobImageSum%"
set -v JobDone failed
set -v QfuResult "stopped. Nothing was written."
if x%JobFailed%%JobOnFailure% == xyesstop then
  set -v JobDone skipped
  set -v QfuResult "an adapter before it failed. Nothing was written."
else
  # The number of an adapter means another one when a board before it is no longer found.
  "%JobHome%\qfu.efi" -l >v JobNow
  if "%JobNow%" == "%JobAll%" then
    "%JobHome%\work.nsh"
  else
    set -v JobDone refused
    set -v QfuResult "qfu -l no longer finds the same adapters and chips. Nothing was written."
  endif
endif
if not %JobDone% == done then
  if not %JobDone% == held then
    set -v JobFailed yes
  endif
endif
set -v JobOut "QFU-RESULT %JobOne% status=%JobDone% -- %QfuResult% ;"
echo "%JobOut%"
"%JobHome%\record.nsh"
set -v JobTold %JobTold%n
