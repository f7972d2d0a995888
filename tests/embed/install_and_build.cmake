# tests/embed/install_and_build.cmake: installs the build tree into a scratch folder, moves the
# installed tree to another folder (it must not care where it lies), then configures, builds and
# runs examples/embed against it and checks what it prints.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DSCRATCH=... -DGENERATOR=... -DCXX_COMPILER=...
#         -DBUILD_TYPE=... [-DCXX_FLAGS=...] -P install_and_build.cmake

foreach(variable BUILD_DIR SOURCE_DIR SCRATCH GENERATOR CXX_COMPILER BUILD_TYPE)
    if(NOT DEFINED ${variable})
        message(FATAL_ERROR "install_and_build.cmake needs -D${variable}=...")
    endif()
endforeach()

# run(description COMMAND ...): runs the command; stops with its output when it fails. The
# standard output is left in RUN_OUTPUT.
function(run description)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${description} failed (${status}):\n${output}\n${errors}")
    endif()
    set(RUN_OUTPUT "${output}" PARENT_SCOPE)
    set(RUN_ERRORS "${errors}" PARENT_SCOPE)
endfunction()

function(expect_equal what actual expected)
    if(NOT actual STREQUAL expected)
        message(FATAL_ERROR "${what}:\n--- got:\n${actual}\n--- expected:\n${expected}")
    endif()
endfunction()

file(REMOVE_RECURSE "${SCRATCH}")
file(MAKE_DIRECTORY "${SCRATCH}")

# 1. Install, then move the tree: the binaries find their libraries through $ORIGIN only.
run("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${SCRATCH}/installed")
file(RENAME "${SCRATCH}/installed" "${SCRATCH}/tala")
set(tree "${SCRATCH}/tala")
foreach(file bin/tala lib/libQuartoShared.so lib/libtala_python.so lib/libtala_sqlite.so lib/site-packages
             lib/python3/lib include/tala/tala.hpp include/tala/class_builder.hpp lib/cmake/tala/talaConfig.cmake
             lib/cmake/tala/talaConfigVersion.cmake lib/cmake/tala/talaTargets.cmake)
    if(NOT EXISTS "${tree}/${file}")
        message(FATAL_ERROR "The installed tree has no ${file}.")
    endif()
endforeach()

# 2. The moved program runs, with the Python extension and the sqlite module beside it.
run("the moved tala program" "${tree}/bin/tala" --load sqlite eval
    "sqlite.Database.open(':memory:').query('SELECT 6 * 7 AS answer')")
expect_equal("the moved program's output" "${RUN_OUTPUT}" "[Row(answer=42)]\n")

# 3. The embedding example, configured and built against the moved tree.
run("configuring examples/embed" ${CMAKE_COMMAND} -S "${SOURCE_DIR}/examples/embed" -B "${SCRATCH}/embed"
    -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${tree}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
    "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}")
run("building examples/embed" ${CMAKE_COMMAND} --build "${SCRATCH}/embed")

# 4. It runs: host parcels in, the postage and the heaviest parcel back, a logging line out.
run("running examples/embed" "${SCRATCH}/embed/parcels")
expect_equal("the example's output" "${RUN_OUTPUT}"
    "postage: [('DE', Decimal('3.36')), ('FR', Decimal('27.30'))]\nheaviest: Parcel(4.0 kg to FR)\n")
if(NOT RUN_ERRORS MATCHES "3 parcels, heaviest Parcel\\(4.0 kg to FR\\)")
    message(FATAL_ERROR "The example's logging line is missing from its standard error:\n${RUN_ERRORS}")
endif()
message(STATUS "examples/embed built against the installed tree and ran as expected")
