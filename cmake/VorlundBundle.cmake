# vorlund_add_bundle(NAME SOURCES <file>... INFO_PLIST <file> [DESTINATION <dir>])
#
# Builds a loadable test bundle: <dir>/NAME.bundle (by default ${PROJECT_BINARY_DIR}/bundles)
# holding Info.plist and the shared object NAME.so. The shared object links libvorlund; inside a program that already
# carries the library, the program's symbols (and so its registries) are the ones the bundle uses.
function(vorlund_add_bundle name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "INFO_PLIST;DESTINATION" "SOURCES")
  if(NOT ARG_SOURCES OR NOT ARG_INFO_PLIST)
    message(FATAL_ERROR "vorlund_add_bundle(${name}) needs SOURCES and INFO_PLIST")
  endif()
  if(NOT ARG_DESTINATION)
    set(ARG_DESTINATION ${PROJECT_BINARY_DIR}/bundles)
  endif()
  set(bundle_dir ${ARG_DESTINATION}/${name}.bundle)
  add_library(${name} MODULE ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".so" OUTPUT_NAME ${name}
                        LIBRARY_OUTPUT_DIRECTORY ${bundle_dir})
  target_link_libraries(${name} PRIVATE vorlund)
  get_filename_component(info_plist ${ARG_INFO_PLIST} ABSOLUTE)
  configure_file(${info_plist} ${bundle_dir}/Info.plist COPYONLY)
endfunction()
