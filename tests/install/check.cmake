# Installs the build tree into a fresh prefix, then builds the outside
# program twice, with find_package(Corvid) and with pkg-config, and runs it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGV}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The umbrella header must name every installed library header, so a module
# added later cannot be left out of it unnoticed.
file(READ ${prefix}/include/Corvid/Corvid.h umbrella)
file(GLOB public RELATIVE ${prefix}/include
  ${prefix}/include/Corvid/*.h ${prefix}/include/routing/*.h ${prefix}/include/neighbor/*.h)
list(REMOVE_ITEM public Corvid/Corvid.h)
foreach(header ${public})
  string(FIND "${umbrella}" "#include <${header}>" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "Corvid/Corvid.h does not include ${header}")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/outside)
if(NOT LAST_OUTPUT MATCHES "outside program ok")
  message(FATAL_ERROR "unexpected output from the find_package build: ${LAST_OUTPUT}")
endif()

file(GLOB pcdir ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
execute_process(COMMAND pkg-config --cflags --libs corvid OUTPUT_VARIABLE pcflags
  RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know corvid")
endif()
separate_arguments(pcflags UNIX_COMMAND "${pcflags}")
separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS}")
file(GLOB libdir ${prefix}/lib*)
run(${CXX} -std=c++20 ${extra} ${SOURCE_DIR}/outside.cpp ${pcflags} -Wl,-rpath,${libdir}
    -o ${WORK_DIR}/outside-pc)
run(${WORK_DIR}/outside-pc)
if(NOT LAST_OUTPUT MATCHES "outside program ok")
  message(FATAL_ERROR "unexpected output from the pkg-config build: ${LAST_OUTPUT}")
endif()
