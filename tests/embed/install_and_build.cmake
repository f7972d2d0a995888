# tests/embed/install_and_build.cmake: installs the build tree into a scratch folder, moves the
# installed tree to another folder (it must not care where it lies), then configures, builds and
# runs against it examples/embed, the code of the embedding guide (docs/embedding.md) and the
# README's embedding example, and checks what each prints.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DSCRATCH=... -DGENERATOR=... -DCXX_COMPILER=...
#         -DBUILD_TYPE=... -DEXTRACT=... [-DCXX_FLAGS=...] -P install_and_build.cmake

foreach(variable BUILD_DIR SOURCE_DIR SCRATCH GENERATOR CXX_COMPILER BUILD_TYPE EXTRACT)
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
             lib/python3/lib include/tala/tala.hpp include/tala/class_builder.hpp include/tala/python.hpp
             include/tala/convert.hpp include/tala/views.hpp lib/cmake/tala/talaConfig.cmake
             lib/cmake/tala/talaConfigVersion.cmake lib/cmake/tala/talaTargets.cmake)
    if(NOT EXISTS "${tree}/${file}")
        message(FATAL_ERROR "The installed tree has no ${file}.")
    endif()
endforeach()

# 2. The moved program runs, with the Python extension and the sqlite module beside it.
run("the moved tala program" "${tree}/bin/tala" --load sqlite eval
    "sqlite.Database.open(':memory:').query('SELECT 6 * 7 AS answer')")
expect_equal("the moved program's output" "${RUN_OUTPUT}" "[Row(answer=42)]\n")

# build_against_tree(description SOURCE BINARY [EXTRA_FLAGS]): configures and builds a host project
# against the moved tree.
function(build_against_tree description source binary extra_flags)
    run("configuring ${description}" ${CMAKE_COMMAND} -S "${source}" -B "${binary}"
        -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${tree}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
        "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS} ${extra_flags}"
        "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}")
    run("building ${description}" ${CMAKE_COMMAND} --build "${binary}")
endfunction()

# 3. The embedding example, configured and built against the moved tree.
build_against_tree("examples/embed" "${SOURCE_DIR}/examples/embed" "${SCRATCH}/embed" "")

# 4. It runs: host parcels in, the postage per country and the heaviest parcel back as C++
#    values, a logging line out.
run("running examples/embed" "${SCRATCH}/embed/parcels")
expect_equal("the example's output" "${RUN_OUTPUT}"
    "postage DE: 3.36\npostage FR: 27.30\nheaviest: Parcel(4.0 kg to FR)\n")
if(NOT RUN_ERRORS MATCHES "3 parcels, heaviest Parcel\\(4.0 kg to FR\\)")
    message(FATAL_ERROR "The example's logging line is missing from its standard error:\n${RUN_ERRORS}")
endif()
message(STATUS "examples/embed built against the installed tree and ran as expected")

# 5. The code the documents show, each document a project of its own, built without a warning
#    and run: what each prints is what the document says it prints.
foreach(document docs/embedding.md README.md)
    string(MAKE_C_IDENTIFIER "${document}" name)
    set(project "${SCRATCH}/documents/${name}")
    run("extracting the code of ${document}" "${EXTRACT}" "${SOURCE_DIR}/${document}" "${project}")
    build_against_tree("the code of ${document}" "${project}" "${project}/build" "-Wall -Wextra -Werror -Wno-array-bounds")
    run("running the code of ${document}" "${project}/build/app")
    file(READ "${project}/expected.txt" expected)
    expect_equal("the output of the code of ${document}" "${RUN_OUTPUT}" "${expected}")
    message(STATUS "the code of ${document} built against the installed tree and printed what it shows")
endforeach()
