@echo -off
# Keeps what JobAll says of each adapter: JobNumbern, JobIdsn, JobPlacen and JobAtn of the first, JobNumbernn and so
# on of the second. JobRows has the "n", "nn" and so on, JobSeen the one behind the last.
#
# "ports" is the fifth word of an adapter: vendor and device stand four and three words before it, the bus
# is the first word behind it, the device the second.
set -v JobSeen n
set -v JobRows " "
set -v JobStep none
set -v Job1 none
set -v Job2 none
set -v Job3 none
set -v Job4 none
set -v JobBus none
# The shell puts variables into a line one after another, in the order in which they were made, and each goes through
# all that those before it have put there. So the words of the list are made last.
set -v JobWords "%JobAll%"
for %w in %JobWords%
  if "%w" == ports or %JobStep% == bus or %JobStep% == device then
    if %JobStep% == device then
      set -v JobPlace%JobSeen% "%JobBus% %w"
      set -v JobAt%JobSeen% "%JobBus%%wFun=0]"
      set -v JobStep none
      set -v JobTotal n
      for %c run (0 5)
        if %JobTotal% == %JobSeen% then
          set -v JobNumber%JobSeen% %c
        endif
        set -v JobTotal %JobTotal%n
      endfor
      set -v JobRows "%JobRows% %JobSeen%"
      set -v JobSeen %JobSeen%n
    endif
    if %JobStep% == bus then
      set -v JobBus "%w"
      set -v JobStep device
    endif
    if "%w" == ports then
      set -v JobIds%JobSeen% "%Job1%%Job2%"
      set -v JobStep bus
    endif
  endif
  set -v Job1 "%Job2%"
  set -v Job2 "%Job3%"
  set -v Job3 "%Job4%"
  set -v Job4 " %w"
endfor
