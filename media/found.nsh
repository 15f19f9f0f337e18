@echo -off
# Says which adapter there is, and whether the job has something for it.
\job\plan.nsh
set -v JobOne "%JobLine% adapter=%JobAdapter% place=%JobAt% device=%JobDevice%"
echo "QFU-FOUND %JobOne% ;"
if %JobPlan% == none then
  set -v JobWrong yes
endif
