# Where `cmake --install` puts headers, libraries, command line, and the files that find them.
#
# Component runtime: for running. Component development: for building programs. The unversioned names
# of the libraries are runtime, as C# and Python load the libraries by these names.
include(CMakePackageConfigHelpers)

# Before 1.0 a minor version may change the interface.
set(soversion ${PROJECT_VERSION_MAJOR})
if(soversion EQUAL 0)
  string(APPEND soversion .${PROJECT_VERSION_MINOR})
endif()
set_target_properties(VelostrixUncalibration velostrix_host PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${soversion})
set_target_properties(VelostrixUncalibration PROPERTIES EXPORT_NAME Uncalibration)
set_target_properties(velostrix_host PROPERTIES EXPORT_NAME Host)
set_target_properties(velostrix_cxx PROPERTIES EXPORT_NAME Velostrix)
install(TARGETS VelostrixUncalibration velostrix_host velostrix_cxx EXPORT VelostrixTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT runtime
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/velostrix
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/generated/velostrix/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velostrix COMPONENT development)

# What is unpacked anywhere runs there; what is in /usr needs no path of its own. In the build, CMake's
# own path would end in a colon, which means the current folder and anybody's libraries in it; packages
# for Python and C# take a built library along.
function(velostrix_find_beside target origin file)
  if(UNIX AND NOT APPLE)
    set_target_properties(${target} PROPERTIES
      INSTALL_RPATH "${origin}" INSTALL_RPATH_USE_LINK_PATH ON BUILD_WITH_INSTALL_RPATH ON)
  endif()
  install(CODE "
    if(CMAKE_INSTALL_PREFIX MATCHES /usr/?$)
      file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\")
    endif()" COMPONENT runtime)
endfunction()
velostrix_find_beside(velostrix_host "\$ORIGIN"
  ${CMAKE_INSTALL_LIBDIR}/libvelostrix_host.so.${PROJECT_VERSION})

if(TARGET velostrix_cli)
  install(TARGETS velostrix_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  set_target_properties(velostrix_codecs PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${soversion})
  install(TARGETS velostrix_codecs
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
  velostrix_find_beside(velostrix_cli "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR};\$ORIGIN"
    ${CMAKE_INSTALL_BINDIR}/velostrix)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/velostrix.bash RENAME velostrix
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT runtime)

  find_program(VELOSTRIX_HELP2MAN help2man)
  if(VELOSTRIX_HELP2MAN)
    set(help_text ${CMAKE_CURRENT_LIST_DIR}/help_text.sh)
    set(further_text ${CMAKE_CURRENT_LIST_DIR}/velostrix.h2m)
    set(page ${PROJECT_BINARY_DIR}/velostrix.1)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    add_custom_command(OUTPUT ${page}.gz
      COMMAND ${CMAKE_COMMAND} -E env "EMULATOR=${emulator}"
        ${VELOSTRIX_HELP2MAN} --no-info --include ${further_text} --output ${page}
        "sh '${help_text}' '$<TARGET_FILE:velostrix_cli>'"
      COMMAND gzip -9nf ${page}
      DEPENDS velostrix_cli ${help_text} ${further_text} VERBATIM)
    add_custom_target(velostrix_manual ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
  elseif(VELOSTRIX_TESTS)
    message(FATAL_ERROR "help2man is missing: apt-get install help2man")
  endif()
endif()

# The reference exists once its target has been built.
set(documentation_folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/velostrix)
file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${documentation_folder} COMPONENT runtime)
install(FILES ${pages} DESTINATION ${documentation_folder}/docs COMPONENT runtime)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/images
  DESTINATION ${documentation_folder}/docs COMPONENT runtime)
install(DIRECTORY ${PROJECT_BINARY_DIR}/reference
  DESTINATION ${documentation_folder}-dev COMPONENT development OPTIONAL)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Velostrix)
install(EXPORT VelostrixTargets NAMESPACE Velostrix:: FILE VelostrixTargets.cmake
  DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VelostrixConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelostrixConfig.cmake INSTALL_DESTINATION ${package_folder})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelostrixConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelostrixConfig.cmake
  ${PROJECT_BINARY_DIR}/VelostrixConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT development)

file(RELATIVE_PATH pkgconfig_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/velostrix.pc.in ${PROJECT_BINARY_DIR}/velostrix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velostrix.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
