# Makes the linker's version script from the list of exports.
#   cmake -DEXPORTS=abi/exports.txt -DSCRIPT=out.map -P version_script.cmake
file(STRINGS ${EXPORTS} names REGEX "^[^#]")
list(TRANSFORM names STRIP)
list(FILTER names EXCLUDE REGEX "^$")
list(JOIN names ";\n    " body)
file(WRITE ${SCRIPT} "{\n  global:\n    ${body};\n  local:\n    *;\n};\n")
