# cpack: a tarball that runs where it is unpacked, and on Debian a package for each component.
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME velostrix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_CONTACT "The Velostrix developers <velostrix@example.invalid>")
set(CPACK_PACKAGE_VENDOR Velostrix)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_FILE_NAME velostrix-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)

if(EXISTS /etc/debian_version)
  list(APPEND CPACK_GENERATOR DEB)
  set(debian ${PROJECT_BINARY_DIR}/debian)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${debian}/changelog
    "velostrix (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
    "  * See /usr/share/doc/velostrix/CHANGELOG.md.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9nf ${debian}/changelog COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE ${debian}/triggers "activate-noawait ldconfig\n")
  # A package built on ours works with any version whose libraries have the same SONAME.
  set(abi velostrix-abi-${soversion})
  file(WRITE ${debian}/shlibs
    "libVelostrixUncalibration ${soversion} ${abi}\nlibvelostrix_host ${soversion} ${abi}\n"
    "libvelostrix_codecs ${soversion} ${abi}\n")
  file(WRITE ${debian}/velostrix
    "# C# and Python load the libraries by the names without a version.\n"
    "link-to-shared-library-in-wrong-package\n"
    "# The command line and the libraries are one package; others depend on ${abi}.\n"
    "package-name-doesnt-match-sonames\n"
    "# CPack adds these calls; beside the trigger they are needless, not wrong.\n"
    "maintscript-calls-ldconfig\n")
  install(FILES ${debian}/changelog.gz
    DESTINATION ${documentation_folder} COMPONENT runtime EXCLUDE_FROM_ALL)
  install(FILES ${debian}/changelog.gz
    DESTINATION ${documentation_folder}-dev COMPONENT development EXCLUDE_FROM_ALL)
  install(FILES ${debian}/velostrix
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT runtime EXCLUDE_FROM_ALL)

  if(is_arm64)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)  # also where another processor builds it
  endif()
  if(CMAKE_SYSROOT)
    # Dependencies are looked up there, in DEBIAN/symbols and DEBIAN/shlibs, and in the package itself.
    foreach(folder IN ITEMS ${CMAKE_SYSROOT}/lib ${CMAKE_SYSROOT}/usr/lib usr/lib)
      list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${folder}/${CMAKE_LIBRARY_ARCHITECTURE})
    endforeach()
  endif()
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME velostrix)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION science)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_PROVIDES ${abi})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${debian}/shlibs ${debian}/triggers)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME velostrix-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "velostrix (= ${PROJECT_VERSION}), libopencv-dev")
  set(purpose
    "Photometric stereo: from 3 to 8 images of one part, each under a different\n"
    "lamp, Velostrix makes images in which print and stains fade, and dents,\n"
    "scratches and embossing stand out.\n\n")
  string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION ${purpose}
    "This package has the libraries for C, C++, C# and Python, and the command\n"
    "line.")
  string(CONCAT CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION ${purpose}
    "This package has what a program is built with: headers, CMake package and\n"
    "pkg-config file.")
endif()
include(CPack)
