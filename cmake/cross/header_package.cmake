# A package of headers alone that the build machine has for itself serves the cross-compiler as well,
# but not by the folder that it lies in: that one has the headers of the build machine's C library.
# header_package(TARGET FOLDER): the imported target, with just /usr/include/FOLDER on its path.
function(header_package target folder)
  if(TARGET ${target})
    return()
  endif()
  if(NOT IS_DIRECTORY /usr/include/${folder})
    message(FATAL_ERROR "no /usr/include/${folder}; scripts/bootstrap.sh all installs it")
  endif()
  set(headers ${PROJECT_BINARY_DIR}/headers/${folder})
  file(MAKE_DIRECTORY ${headers})
  file(CREATE_LINK /usr/include/${folder} ${headers}/${folder} SYMBOLIC)
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} INTERFACE ${headers})
endfunction()
