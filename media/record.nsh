@echo -off
# Keeps the line JobOut beside the backups. Where there is no room, the shell leaves this script.
echo "%JobOut%" >>a results.txt
