@echo -off
# Runs the script %1 for each adapter of JobAll, with JobAdapter, JobIds, JobPlace and JobAt set.
#
# "ports" is the fifth word of an adapter: vendor and device stand four and three words before it, the bus
# is the first word behind it, the device the second.
set -v JobSeen n
set -v JobStep none
set -v Job1 none
set -v Job2 none
set -v Job3 none
set -v Job4 none
for %w in %JobAll%
  if %JobStep% == device then
    set -v JobPlace "%JobBus% %w"
    set -v JobAt "%JobBus%%wFun=0]"
    set -v JobStep none
    set -v JobTotal n
    for %c run (0 5)
      if %JobTotal% == %JobSeen% then
        set -v JobAdapter %c
      endif
      set -v JobTotal %JobTotal%n
    endfor
    set -v JobSeen %JobSeen%n
    %1
  endif
  if %JobStep% == bus then
    set -v JobBus "%w"
    set -v JobStep device
  endif
  if "x%w" == "xports" then
    set -v JobIds "%Job1%%Job2%"
    set -v JobStep bus
  endif
  set -v Job1 "%Job2%"
  set -v Job2 "%Job3%"
  set -v Job3 "%Job4%"
  set -v Job4 " %w"
endfor
