@echo -off
# Keeps the line JobOut beside the backups. Where there is no room, the shell writes nothing and does not say so, or
# leaves this script.
setsize 2048 qfu.tmp >v QfuJunk
if not %lasterror% == 0x0 then
  echo "The medium is full: job\results.txt may lack the line above."
endif
rm -q qfu.tmp >v QfuJunk
echo "%JobOut%" >>a results.txt
