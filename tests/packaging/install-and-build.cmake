# Installs a build of the library into a prefix and builds and runs a consumer project against
# that installation. Run with cmake -P and these variables:
#
#   HERMITE_BINARY_DIR   the library's (already built) build tree
#   INSTALL_PREFIX       where to install it; emptied first
#   CONSUMER_SOURCE_DIR  the consumer project
#   CONSUMER_BINARY_DIR  the consumer's build tree; emptied first
#   CONSUMER_EXECUTABLE  the consumer's executable target, run after the build
#   GENERATOR            the CMake generator for the consumer
#   CONFIG               configuration to install and build (may be empty)
#   CONSUMER_OPTIONS     extra -D options for configuring the consumer (a list)
#
# Every step must succeed; the first failure ends the script with an error.

cmake_minimum_required(VERSION 3.16)

foreach(variable HERMITE_BINARY_DIR INSTALL_PREFIX CONSUMER_SOURCE_DIR CONSUMER_BINARY_DIR
        CONSUMER_EXECUTABLE GENERATOR)
    if(NOT DEFINED ${variable} OR "${${variable}}" STREQUAL "")
        message(FATAL_ERROR "install-and-build.cmake: ${variable} is not set")
    endif()
endforeach()

# Runs one command and stops with its output when it fails.
function(run_step description)
    message(STATUS "${description}")
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "${description} failed (${result}): ${command}")
    endif()
endfunction()

set(config_options "")
if(CONFIG)
    set(config_options --config ${CONFIG})
endif()

# Start from nothing, so that stale files from an earlier run cannot hide a missing one.
file(REMOVE_RECURSE ${INSTALL_PREFIX} ${CONSUMER_BINARY_DIR})

run_step("Installing ${HERMITE_BINARY_DIR} into ${INSTALL_PREFIX}"
    ${CMAKE_COMMAND} --install ${HERMITE_BINARY_DIR} --prefix ${INSTALL_PREFIX} ${config_options})

# Only the fresh installation may satisfy find_package(): the package registries are ignored and
# the consumer checks where the package came from.
run_step("Configuring the consumer"
    ${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${CONSUMER_BINARY_DIR} -G ${GENERATOR}
        ${CONSUMER_OPTIONS}
        -DCMAKE_PREFIX_PATH=${INSTALL_PREFIX}
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
        -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF
        -DHERMITE_EXPECTED_PREFIX=${INSTALL_PREFIX})

run_step("Building the consumer"
    ${CMAKE_COMMAND} --build ${CONSUMER_BINARY_DIR} ${config_options})

# Single-configuration generators put the executable at the top of the build tree,
# multi-configuration ones in a subdirectory per configuration.
set(executable ${CONSUMER_BINARY_DIR}/${CONSUMER_EXECUTABLE})
if(CONFIG AND EXISTS ${CONSUMER_BINARY_DIR}/${CONFIG}/${CONSUMER_EXECUTABLE})
    set(executable ${CONSUMER_BINARY_DIR}/${CONFIG}/${CONSUMER_EXECUTABLE})
endif()
run_step("Running ${executable}" ${executable})
