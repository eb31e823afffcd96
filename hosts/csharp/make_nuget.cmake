# Makes the NuGet package, a zip, from a build: assemblies and native libraries.
#   cmake -D VERSION= -D RUNTIME= -D BUILD= -D LIBRARIES= -D ASSEMBLIES= -D PACKAGE= -P make_nuget.cmake
# RUNTIME: what the native libraries run on, in NuGet's words. LIBRARIES: their folder in an installed copy.
cmake_minimum_required(VERSION 3.22)
set(stage ${PACKAGE}.files)
set(installed ${PACKAGE}.installed)
file(REMOVE_RECURSE ${stage} ${installed} ${PACKAGE})
# Installed libraries find each other in their own folder.
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --component runtime --strip
  --prefix ${installed} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

foreach(name IN ITEMS Velostrix Velostrix.Drawing)
  file(COPY ${ASSEMBLIES}/${name}.dll ${ASSEMBLIES}/${name}.xml
    DESTINATION ${stage}/lib/netstandard2.0)
endforeach()
string(REGEX MATCH "^0\\.[0-9]+|^[0-9]+" soversion ${VERSION})
set(native runtimes/${RUNTIME}/native)
set(module ${native}/libVelostrixUncalibration.so.${soversion})
file(MAKE_DIRECTORY ${stage}/${native})
# By the names that are asked for: the host's by C#, the module's by the host library.
file(COPY_FILE ${installed}/${LIBRARIES}/libvelostrix_host.so ${stage}/${native}/libvelostrix_host.so)
file(COPY_FILE ${installed}/${LIBRARIES}/libVelostrixUncalibration.so ${stage}/${module})
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
file(WRITE "${stage}/[Content_Types].xml" "<?xml version=\"1.0\" encoding=\"utf-8\"?>
<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">
  ${types}
  <Override PartName=\"/${module}\" ContentType=\"application/octet\" />
</Types>
")

execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf ${PACKAGE} --format=zip --
  "[Content_Types].xml" _rels/.rels Velostrix.nuspec README.md lib runtimes
  WORKING_DIRECTORY ${stage} COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE_RECURSE ${stage} ${installed})
message(STATUS "${PACKAGE}")
