# cmake -DNM=... -DLIBRARY=... -DEXPORTS=... -DHEADER=... -P check_exports.cmake
#
# The library's dynamic symbols, and the names that the header marks as
# exported, are those of exports.txt and no others.
file(STRINGS ${EXPORTS} listed REGEX "^[A-Za-z_]")
list(SORT listed)

execute_process(COMMAND ${NM} --dynamic --defined-only --format=posix ${LIBRARY}
                OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "(^|\n)[^ \n]+" built "${symbols}")
list(TRANSFORM built STRIP)

file(READ ${HEADER} header)
string(REGEX MATCHALL "\n(extern )?ZU_EXPORT [^(;]+" declared "${header}")
list(TRANSFORM declared REPLACE "(.*[ *])|(\\[.*)" "")

foreach(names built declared)
  list(SORT ${names})
  if(NOT "${${names}}" STREQUAL "${listed}")
    set(missing ${listed})
    set(extra ${${names}})
    list(REMOVE_ITEM missing ${${names}})
    list(REMOVE_ITEM extra ${listed})
    message(SEND_ERROR
            "${names}: missing \"${missing}\", not listed \"${extra}\"")
  endif()
endforeach()
