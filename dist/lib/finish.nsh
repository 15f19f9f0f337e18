@echo -off
# Removes what the scripts made for themselves.
rm -q qfu.tmp >v QfuJunk
rm -q qfu2.tmp >v QfuJunk
if %QfuListIsOurs% == yes then
  rm -q spilist.bin
endif
