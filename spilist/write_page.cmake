# Writes PAGE: what SPILIST shows of SOURCE, put into TEMPLATE. The table stays as it is printed; the
# notes behind its last line become a list.
execute_process(COMMAND ${SPILIST} show ${SOURCE} OUTPUT_VARIABLE shown COMMAND_ERROR_IS_FATAL ANY)
string(FIND "${shown}" "\nFull erase:" last)
math(EXPR last "${last} + 1")
string(SUBSTRING "${shown}" ${last} -1 notes)
string(FIND "${notes}" "\n" length)
math(EXPR table "${last} + ${length} + 1")
string(SUBSTRING "${shown}" 0 ${table} QFU_CHIPS)
string(SUBSTRING "${shown}" ${table} -1 QFU_NOTES)
string(REGEX REPLACE "([^\n]+\n)" "    \\1" QFU_CHIPS "${QFU_CHIPS}")
string(REGEX REPLACE "([^\n]+\n)" "- \\1" QFU_NOTES "${QFU_NOTES}")
configure_file(${TEMPLATE} ${PAGE} @ONLY)
