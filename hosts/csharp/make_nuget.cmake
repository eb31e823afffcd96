# Makes the NuGet package, a zip, from a build: assemblies and native libraries.
#   cmake -D VERSION= -D RUNTIME= -D BUILD= -D STRIP= -D ASSEMBLIES= -D PACKAGE= -P make_nuget.cmake
# RUNTIME: what the native libraries run on, in NuGet's words. STRIP: the build's program of that name.
# The environment's VELOSTRIX_NUGET_WITH: the package of another RUNTIME, whose native libraries this one
# has as well.
cmake_minimum_required(VERSION 3.22)
set(stage ${PACKAGE}.files)
file(REMOVE_RECURSE ${stage} ${stage}.other ${PACKAGE})

foreach(name IN ITEMS Velostrix Velostrix.Drawing)
  file(COPY ${ASSEMBLIES}/${name}.dll ${ASSEMBLIES}/${name}.xml
    DESTINATION ${stage}/lib/netstandard2.0)
endforeach()
# By the names that are loaded: velostrix_host by C#, the module by velostrix_host.
string(REGEX MATCH "^0\\.[0-9]+|^[0-9]+" soversion ${VERSION})
set(native runtimes/${RUNTIME}/native)
file(MAKE_DIRECTORY ${stage}/${native})
foreach(library IN ITEMS libvelostrix_host.so libVelostrixUncalibration.so.${soversion})
  file(COPY_FILE ${BUILD}/${library} ${stage}/${native}/${library})
  execute_process(COMMAND ${STRIP} ${stage}/${native}/${library} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
set(other $ENV{VELOSTRIX_NUGET_WITH})
if(other)
  if(NOT IS_ABSOLUTE ${other} OR NOT EXISTS ${other})
    message(FATAL_ERROR "VELOSTRIX_NUGET_WITH: no ${other}; expected the whole path of a package")
  endif()
  file(ARCHIVE_EXTRACT INPUT ${other} DESTINATION ${stage}.other)
  file(READ ${stage}.other/Velostrix.nuspec manifest)
  if(NOT manifest MATCHES "<version>${VERSION}</version>" OR EXISTS ${stage}.other/${native})
    message(FATAL_ERROR "VELOSTRIX_NUGET_WITH: ${other} is not of version ${VERSION} or has "
      "${native} itself; expected what a build for another platform has made")
  endif()
  file(COPY ${stage}.other/runtimes DESTINATION ${stage})
  file(REMOVE_RECURSE ${stage}.other)
endif()
file(COPY ${CMAKE_CURRENT_LIST_DIR}/README.md DESTINATION ${stage})

file(WRITE ${stage}/Velostrix.nuspec "<?xml version=\"1.0\" encoding=\"utf-8\"?>
<package xmlns=\"http://schemas.microsoft.com/packaging/2013/05/nuspec.xsd\">
  <metadata>
    <id>Velostrix</id>
    <version>${VERSION}</version>
    <authors>The Velostrix developers</authors>
    <description>Photometric-stereo surface reconstruction for machine-vision inspection</description>
    <readme>README.md</readme>
    <dependencies>
      <group targetFramework=\".NETStandard2.0\" />
    </dependencies>
  </metadata>
</package>
")
file(WRITE ${stage}/_rels/.rels "<?xml version=\"1.0\" encoding=\"utf-8\"?>
<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">
  <Relationship Id=\"manifest\" Target=\"/Velostrix.nuspec\"
    Type=\"http://schemas.microsoft.com/packaging/2010/07/manifest\" />
</Relationships>
")
set(types "<Default Extension=\"rels\"
    ContentType=\"application/vnd.openxmlformats-package.relationships+xml\" />")
foreach(extension IN ITEMS nuspec dll xml md so)
  string(APPEND types "\n  <Default Extension=\"${extension}\" ContentType=\"application/octet\" />")
endforeach()
file(GLOB modules RELATIVE ${stage} ${stage}/runtimes/*/native/*.so.*)
foreach(module IN LISTS modules)
  string(APPEND types "\n  <Override PartName=\"/${module}\" ContentType=\"application/octet\" />")
endforeach()
file(WRITE "${stage}/[Content_Types].xml" "<?xml version=\"1.0\" encoding=\"utf-8\"?>
<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">
  ${types}
</Types>
")

execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${PACKAGE} --format=zip --
  "[Content_Types].xml" _rels/.rels Velostrix.nuspec README.md lib runtimes
  WORKING_DIRECTORY ${stage} COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE ${stage})
message(STATUS "${PACKAGE}")
