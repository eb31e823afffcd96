# A NuGet package is made, and used in a folder and an environment that have nothing else of ours.
#   cmake -D VERSION= -D PACKAGE= -D WORK= -D MCS= -D MONO= -D CLI= -D SAMPLE= -D ENVIRONMENT=
#     -P nuget_test.cmake
file(REMOVE_RECURSE ${WORK})
file(ARCHIVE_EXTRACT INPUT ${PACKAGE} DESTINATION ${WORK}/package)
file(READ ${WORK}/package/Velostrix.nuspec manifest)
if(NOT manifest MATCHES "<version>${VERSION}</version>")
  message(FATAL_ERROR "not the manifest of ${VERSION}:\n${manifest}")
endif()

# What a build with the package puts beside a program.
file(GLOB files ${WORK}/package/lib/netstandard2.0/*.dll ${WORK}/package/runtimes/linux-x64/native/*)
file(COPY ${files} DESTINATION ${WORK}/program)
foreach(command IN ITEMS
    "${CLI};render;--out;.;--images;4;--size;160x120;--quiet"
    "${MCS};-r:program/Velostrix.dll,program/Velostrix.Drawing.dll,System.Drawing.dll;-out:program/sample.exe;${SAMPLE}"
    "${MONO};program/sample.exe;out;image0.png;image1.png;image2.png;image3.png")
  execute_process(COMMAND env -i PATH=/usr/bin:/bin ${ENVIRONMENT} ${command}
    WORKING_DIRECTORY ${WORK} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(file IN ITEMS curvature.png normal.png height.pgm recipe.json)
  if(NOT EXISTS ${WORK}/out/${file})
    message(FATAL_ERROR "the sample made no ${file}")
  endif()
endforeach()
