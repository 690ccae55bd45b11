# Finds an interpreter with its headers, and pybind11. The system's interpreter unless another is
# named with Python_EXECUTABLE: others on the search path lack the system's packages.
if(NOT DEFINED Python_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python to build for and to test with")
endif()
set(PYBIND11_FINDPYTHON ON)
find_package(Python 3.9 COMPONENTS Interpreter Development.Module QUIET)
if(Python_Development.Module_FOUND)
  find_package(pybind11 2.10 CONFIG QUIET)
endif()
