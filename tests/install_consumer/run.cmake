# Script behind the install_consumer test (see CMakeLists.txt beside it) and the check of the
# unpacked Debian packages in tools/test.sh.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}")
  endif()
  set(output "${output}${out}" PARENT_SCOPE)
endfunction()

if(BUILD_DIR)  # without it, PREFIX holds the unpacked Debian packages
  file(REMOVE_RECURSE ${PREFIX})
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
endif()

# Only the public headers may be installed.
file(GLOB headers RELATIVE ${PREFIX}/include/information_api ${PREFIX}/include/information_api/*)
set(expected information_api.h information_api_export.h information_api_version.h queued_sink.h
             transport_security.h windows_information_imp.h)
if(WITH_MACOS_COLLECTOR)
  set(expected KrMacosInfo.h ${expected})
endif()
if(NOT headers STREQUAL expected)
  message(FATAL_ERROR "installed headers: ${headers}, expected: ${expected}")
endif()

# The examples once through find_package, once through pkg-config (which finds the .pc file through
# CMAKE_PREFIX_PATH); example_host tells the version of the headers it was built with. A pkg-config
# consumer adds -fPIC itself, as Qt asks of code built against its -reduce-relocations build.
set(flags_ON -DCMAKE_CXX_FLAGS=-fPIC)
foreach(pkg_config OFF ON)
  file(REMOVE_RECURSE ${EXAMPLES_BUILD})
  run(${CMAKE_COMMAND} -S ${EXAMPLES} -B ${EXAMPLES_BUILD} -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${PREFIX}
      -DUSE_PKG_CONFIG=${pkg_config} ${flags_${pkg_config}})
  run(${CMAKE_COMMAND} --build ${EXAMPLES_BUILD})
  set(output "")
  run(${EXAMPLES_BUILD}/example_host --version)
  run(${EXAMPLES_BUILD}/example_host ${EXAMPLES_BUILD})
  if(NOT output MATCHES "^example_host ${VERSION}\n.*the usage record, ./veltrainfo/[0-9T-]+\\.info2:")
    message(FATAL_ERROR "unexpected example_host output:\n${output}")
  endif()
endforeach()
