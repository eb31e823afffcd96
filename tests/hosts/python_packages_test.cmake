# Makes a wheel with the native libraries and a source distribution without, installs each by pip
# and uses it in an empty environment.
# -D PYTHON=... SOURCE=... (top of the project) WORK=... LIBRARIES=... ENVIRONMENT=...
file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/CMakeLists.txt DESTINATION ${WORK}/source)
file(COPY ${SOURCE}/hosts/python DESTINATION ${WORK}/source/hosts PATTERN __pycache__ EXCLUDE
  PATTERN build EXCLUDE)
set(pip ${PYTHON} -m pip --disable-pip-version-check --quiet)
set(options --no-index --no-build-isolation --no-deps)

function(run)
  execute_process(COMMAND env ${ARGN} WORKING_DIRECTORY ${WORK} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Installs a package, by its own name alone, and uses it.
function(check package folder)
  run(-u VELOSTRIX_LIBRARY_PATH ${pip} install ${options} --root-user-action ignore
    --target ${WORK}/${folder} ${package})
  run(-i ${ENVIRONMENT} PYTHONPATH=${WORK}/${folder} ${ARGN} ${PYTHON} -W error -c "
import importlib.metadata, pathlib, numpy, velostrix
images = list(numpy.random.default_rng(1).integers(0, 256, (4, 60, 80), numpy.uint8))
result = velostrix.reconstruct(images)
assert result.height.shape == (60, 80) and 'srcdoc' in result._repr_html_()
assert velostrix.__version__ == importlib.metadata.version('velostrix')
mapped = pathlib.Path('/proc/self/maps').read_text().split()
print(velostrix.__file__, *sorted({word for word in mapped if 'elostrix' in word}))
ours = {word for word in mapped if 'elostrix' in word and '${folder}' in word}
assert len(ours) == (2 if '${folder}' == 'wheel' else 0), ours")
endfunction()

run(VELOSTRIX_LIBRARY_PATH=${LIBRARIES} ${pip} wheel ${options} -w dist source/hosts/python)
file(GLOB wheel ${WORK}/dist/velostrix-*-py3-none-linux_*.whl)
check(${wheel} wheel)
# An empty element of the path is the current folder, where anybody's libraries may be.
file(STRINGS ${WORK}/wheel/velostrix/libvelostrix_host.so paths REGEX "[$]ORIGIN")
if(NOT paths STREQUAL "$ORIGIN")
  message(FATAL_ERROR "libvelostrix_host.so looks for libraries in ${paths}")
endif()

execute_process(COMMAND ${PYTHON} setup.py --quiet sdist --dist-dir ${WORK}/dist
  WORKING_DIRECTORY ${WORK}/source/hosts/python COMMAND_ERROR_IS_FATAL ANY)
file(GLOB source_distribution ${WORK}/dist/velostrix-*.tar.gz)
check(${source_distribution} sdist LD_LIBRARY_PATH=${LIBRARIES})

# A library of another version is refused.
file(WRITE ${WORK}/sdist/velostrix/version.txt 99.0.0)
execute_process(COMMAND env -i ${ENVIRONMENT} PYTHONPATH=${WORK}/sdist LD_LIBRARY_PATH=${LIBRARIES}
  ${PYTHON} -c "import velostrix" RESULT_VARIABLE result ERROR_VARIABLE said)
if(NOT result EQUAL 1 OR NOT said MATCHES "ImportError: .*made for version 99.0")
  message(FATAL_ERROR "${result}: ${said}")
endif()
