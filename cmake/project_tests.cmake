# Tests of the project as a whole: binary interface, installation, documentation. Each needs tools
# that its script names; a test whose tools are missing is not registered.

# project_test(name "tool..." script [argument...])
function(project_test name tools script)
  foreach(tool ${tools})
    find_program(QXTOOLS_TEST_TOOL_${tool} ${tool})
    if(NOT QXTOOLS_TEST_TOOL_${tool})
      message(STATUS "No test '${name}': ${tool} is missing")
      return()
    endif()
  endforeach()
  add_test(NAME ${name} COMMAND ${PROJECT_SOURCE_DIR}/scripts/${script} ${ARGN})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
endfunction()

# The committed names are those of the compiler that the packages are built with, on x86-64: others
# emit other copies of inline functions.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  project_test(abi "clang++-14" check-abi.sh $<TARGET_FILE:qxtools>)
endif()
if(QXTOOLS_BUILD_TOOLS)
  project_test(consumer "g++;clang++-14;pkg-config" check-consumer.sh ${PROJECT_BINARY_DIR})
endif()
project_test(docs doxygen check-docs.sh ${PROJECT_BINARY_DIR}/Doxyfile $<TARGET_FILE:qxtools> ${QXTOOLS_CLIPS_DIR})
if(TEST docs)
  set_tests_properties(docs PROPERTIES FIXTURES_REQUIRED clips)
endif()

# A build for a board cannot have the tests, and says so.
add_test(NAME system_runtime COMMAND ${CMAKE_COMMAND} -G ${CMAKE_GENERATOR} -S ${PROJECT_SOURCE_DIR}
         -B ${PROJECT_BINARY_DIR}/system_runtime -DQXTOOLS_DEVICE_RUNTIME=system)
set_tests_properties(system_runtime PROPERTIES
  TIMEOUT 120 PASS_REGULAR_EXPRESSION "set QXTOOLS_BUILD_TESTS=OFF")
