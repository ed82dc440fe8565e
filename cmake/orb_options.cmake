# Settings that every target of the project shares. No -m flags here: only the kernel tiers of
# src/model/kernels are built for more than baseline x86-64, each source by itself.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The kernel tiers alone ask for more (src/model/CMakeLists.txt).
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
# Several sources at a time: most of the time to compile one goes to headers. Sources that include those
# of the operating system come last in their lists, since these define more than they need to.
# -DCMAKE_UNITY_BUILD=OFF (the preset dev) compiles each alone, which is quicker after a change.
option(CMAKE_UNITY_BUILD "Compile all sources of a target at a time" ON)
set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
# The plug-in, the tool and the tests meet in one folder, as they do when installed.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

if(WIN32)
  # Not the import libraries (.dll.a) of runtimes that are linked statically.
  set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
  # The C library's printf as the standard has it, in C as well.
  add_compile_definitions(__USE_MINGW_ANSI_STDIO=1)
endif()

add_compile_options(-Wall -Wextra -Werror -Wshadow -Wno-missing-field-initializers)

if(ORB_SANITIZER)
  add_compile_options(-fsanitize=${ORB_SANITIZER} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORB_SANITIZER})
  # Loops that are to become vectors stay loops there.
  add_compile_options($<$<CXX_COMPILER_ID:Clang>:-Wno-pass-failed>)
  # Programs in C bring the sanitizers' runtime for the plug-in that they load, which is C++.
  add_link_options($<$<LINK_LANG_AND_ID:C,Clang>:-fsanitize-link-c++-runtime>)
  set(CMAKE_C_STANDARD_LIBRARIES -lstdc++)
endif()

# One layer of the library: a static target orb_<name> of the sources, with src/ and include/ on
# its include path, linked to the layers below it.
function(orb_add_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "SOURCES;LAYERS")
  add_library(orb_${name} STATIC ${layer_SOURCES})
  target_include_directories(orb_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  foreach(below IN LISTS layer_LAYERS)
    target_link_libraries(orb_${name} PUBLIC orb_${below})
  endforeach()
endfunction()
