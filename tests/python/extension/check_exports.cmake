# tests/python/extension/check_exports.cmake: fails unless the extension library defines exactly one
# dynamic symbol, quarto_extension_init (the loader's _init/_fini aside).
#
#     cmake -DNM=<nm> -DLIBRARY=<libtala_python.so> -P check_exports.cmake
if(NOT NM OR NOT LIBRARY)
    message(FATAL_ERROR "usage: cmake -DNM=<nm> -DLIBRARY=<library> -P check_exports.cmake")
endif()
if(NOT EXISTS "${LIBRARY}")
    message(FATAL_ERROR "The library ${LIBRARY} does not exist.")
endif()

execute_process(
    COMMAND "${NM}" -D --defined-only "${LIBRARY}"
    OUTPUT_VARIABLE listing
    ERROR_VARIABLE errors
    RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()

# Lines look like "0000000000012345 T quarto_extension_init".
string(REPLACE "\n" ";" lines "${listing}")
set(exported "")
foreach(line IN LISTS lines)
    if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] (.+)$")
        set(name "${CMAKE_MATCH_1}")
        if(NOT name STREQUAL "_init" AND NOT name STREQUAL "_fini")
            list(APPEND exported "${name}")
        endif()
    endif()
endforeach()

if(NOT exported STREQUAL "quarto_extension_init")
    list(JOIN exported "\n    " shown)
    message(FATAL_ERROR "${LIBRARY} must export quarto_extension_init and nothing else; it defines:\n    ${shown}")
endif()
message(STATUS "${LIBRARY} exports only quarto_extension_init.")
