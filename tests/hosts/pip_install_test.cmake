# Installs a copy of the Python package by pip and imports it from there.
# -D PYTHON=... SOURCE=... (top of the project) WORK=... LIBRARIES=... ENVIRONMENT=...
file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/CMakeLists.txt DESTINATION ${WORK}/source)
file(COPY ${SOURCE}/hosts/python DESTINATION ${WORK}/source/hosts PATTERN __pycache__ EXCLUDE)
execute_process(
  COMMAND ${PYTHON} -m pip --disable-pip-version-check install --no-index --no-build-isolation
          --no-deps --root-user-action ignore --target ${WORK}/site ${WORK}/source/hosts/python
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env ${ENVIRONMENT} PYTHONPATH=${WORK}/site
          VELOSTRIX_LIBRARY_PATH=${LIBRARIES} ${PYTHON} -c
          "import velostrix, importlib.metadata as m; print(velostrix.__file__, m.version('velostrix'))"
  WORKING_DIRECTORY ${WORK}
  COMMAND_ERROR_IS_FATAL ANY)
