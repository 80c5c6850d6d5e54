# Script behind the install_consumer test; see CMakeLists.txt beside it.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${PREFIX} ${HOST_BUILD})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# Only the public headers may be installed.
file(GLOB headers RELATIVE ${PREFIX}/include/information_api ${PREFIX}/include/information_api/*)
list(SORT headers)
set(expected information_api.h information_api_export.h information_api_version.h transport_security.h
             windows_information_imp.h)
if(WITH_MACOS_COLLECTOR)
  set(expected KrMacosInfo.h ${expected})
endif()
if(NOT headers STREQUAL expected)
  message(FATAL_ERROR "installed headers: ${headers}, expected: ${expected}")
endif()

# The host once through find_package, once through pkg-config.
file(GLOB_RECURSE pc_file ${PREFIX}/information_api.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
foreach(pkg_config OFF ON)
  file(REMOVE_RECURSE ${HOST_BUILD})
  run(${CMAKE_COMMAND} -S ${HOST_SOURCE} -B ${HOST_BUILD} -G ${GENERATOR}
      -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_BUILD_TYPE=Release -DUSE_PKG_CONFIG=${pkg_config})
  run(${CMAKE_COMMAND} --build ${HOST_BUILD})
  file(MAKE_DIRECTORY ${HOST_BUILD}/work)
  run(${HOST_BUILD}/consumer_host ${HOST_BUILD}/work)
  if(NOT last_output MATCHES "information_api 1\\.[0-9]+\\.[0-9]+, usage record: ./veltrainfo/[0-9T-]+\\.info2")
    message(FATAL_ERROR "unexpected host output:\n${last_output}")
  endif()
endforeach()
