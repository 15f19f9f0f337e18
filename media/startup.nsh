@echo -off
# What the shell of a boot medium runs. The job is in a script of its own, so that an error in it, or
# Ctrl-C, still comes back here.
%homefilesystem%
cd %QfuFolder%
set -v JobHome %homefilesystem%%QfuFolder%
if not exist \job\plan.nsh then
  type prompt.txt
  exit /b
endif
cd \job
set -v JobAtEnd prompt
set -v JobLine "machine=%QfuMachine% serial=%QfuSerial%"
set -v JobAdapters unknown
set -v JobTold none
"%JobHome%\job.nsh"
if not %JobTold% == %JobAdapters% then
  set -v JobOut "QFU-RESULT %JobLine% adapter=none status=unfinished -- the job was stopped before its end. ;"
  echo "%JobOut%"
  "%JobHome%\record.nsh"
endif
if "%JobAtEnd%" == "power off" then
  reset -s
endif
if "%JobAtEnd%" == reset then
  reset
endif
