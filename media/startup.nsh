@echo -off
# What the shell of a boot medium runs: the job, or it says what can be typed.
%homefilesystem%
cd %QfuFolder%
if exist \job\job.txt then
  cd \job
  %homefilesystem%%QfuFolder%\flash.efi job job.txt
else
  type prompt.txt
endif
