# Installs the build into a staging prefix, compiles each installed header alone, runs the
# installed programs, then builds and runs
# examples/hello against it, once through find_package(KQVisitorCore) and once through
# pkg-config.
set(stage ${BINARY_DIR}/stage)
set(work ${BINARY_DIR}/installed-package-test)
file(REMOVE_RECURSE ${stage} ${work})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${stage})

# Each installed header compiles alone against the installed tree: none leans on what another
# includes, or on an internal header that is not installed.
file(GLOB_RECURSE headers RELATIVE ${stage}/include ${stage}/include/KQVisitorCore/*.h)
list(JOIN headers "\n" list)
file(WRITE ${work}/headers.txt "${list}\n")
file(WRITE ${work}/alone.sh [=[
echo "#include <$2>" | c++ -std=c++20 -fsyntax-only -x c++ -I"$1" - ||
  { echo "$2 does not compile alone"; exit 255; }
]=])
cmake_host_system_information(RESULT cores QUERY NUMBER_OF_LOGICAL_CORES)
run(xargs -P ${cores} -n 1 -a ${work}/headers.txt sh ${work}/alone.sh ${stage}/include)
list(LENGTH headers count)
message(STATUS "each of the ${count} installed headers compiles alone")

# The installed programs run from the prefix, finding the installed library on their own.
unset(ENV{LD_LIBRARY_PATH})
foreach(program kqvisitor-chat kqvisitor-sandbox)
  if(EXISTS ${stage}/bin/${program})
    run(${stage}/bin/${program} --help)
    if(NOT output MATCHES "usage: ")
      message(FATAL_ERROR "unexpected help of the installed ${program}: ${output}")
    endif()
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/hello -B ${work}/cmake -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${stage} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${work}/cmake)
run(${work}/cmake/kqvisitor-hello)
if(NOT output MATCHES "hello from KQVisitorCore 1")
  message(FATAL_ERROR "unexpected output of the find_package build: ${output}")
endif()

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${stage}/lib/pkgconfig)
foreach(libdir lib lib64 lib/x86_64-linux-gnu)
  if(EXISTS ${stage}/${libdir}/pkgconfig/KQVisitorCore.pc)
    set(ENV{PKG_CONFIG_PATH} ${stage}/${libdir}/pkgconfig)
  endif()
endforeach()
run(${PKG_CONFIG} --cflags --libs KQVisitorCore)
separate_arguments(flags UNIX_COMMAND "${output}")
file(MAKE_DIRECTORY ${work}/pkg-config)
run(c++ -std=c++20 ${SOURCE_DIR}/examples/hello/main.cpp ${flags} -o ${work}/pkg-config/kqvisitor-hello)
set(ENV{LD_LIBRARY_PATH} "${stage}/lib:${stage}/lib64:${stage}/lib/x86_64-linux-gnu")
run(${work}/pkg-config/kqvisitor-hello)
if(NOT output MATCHES "hello from KQVisitorCore 1")
  message(FATAL_ERROR "unexpected output of the pkg-config build: ${output}")
endif()
message(STATUS "the installed package builds a program through find_package and pkg-config")
