@echo -off
# Runs the job in the current folder. It writes only when the medium is whole and the adapters are the ones
# that the job expects.
\job\settings.nsh
set -v JobLine "machine=%QfuMachine% serial=%QfuSerial% job=%JobName%"
set -d JobFailed >v QfuJunk
set -v JobTold n
echo "QFU-JOB %JobLine% ;"
if not "%QfuSums%" == ok then
  set -v JobText "the medium is damaged: %QfuSums% is not what it was. Nothing was written."
  goto refuse
endif
copy -q "%JobHome%\spilist.bin" spilist.bin >v QfuJunk
"%JobHome%\qfu.efi" -l >v JobAll
if not %lasterror% == 0x0 then
  echo "%JobAll%"
  set -v JobText "qfu found no adapter. Expected: %JobExpected%. Nothing was written."
  goto refuse
endif
set -v JobWrong no
"%JobHome%\walk.nsh"
for %r in %JobRows%
  "%JobHome%\each.nsh" "%JobHome%\found.nsh" %r
endfor
\job\count.nsh
if %JobWrong% == yes then
  echo "%JobAll%"
  set -v JobText "these are not the adapters of the job. Expected: %JobExpected%. Nothing was written."
  goto refuse
endif
set -v JobAdapters %JobSeen%
for %r in %JobRows%
  "%JobHome%\each.nsh" "%JobHome%\one.nsh" %r
endfor
exit /b

:refuse
set -v JobOut "QFU-RESULT %JobLine% adapter=none status=refused -- %JobText% ;"
echo "%JobOut%"
"%JobHome%\record.nsh"
set -v JobAdapters %JobTold%
