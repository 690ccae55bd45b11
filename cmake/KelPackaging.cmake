# Debian packages by cpack: the library (libkel1), what is needed to build with it (libkel-dev),
# the command (kel), what shows pictures on the desktop (kel-gdk-pixbuf), and the Python package
# (python3-kel).
#
#   cmake --preset package && cmake --build --preset package && (cd build/package && cpack)
set(CPACK_PACKAGE_NAME kel)
set(CPACK_PACKAGE_VENDOR "Kel")
set(KEL_PACKAGE_CONTACT "The Kel developers <kel@localhost>" CACHE STRING
    "Who answers for the Debian packages")
set(CPACK_PACKAGE_CONTACT "${KEL_PACKAGE_CONTACT}")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/KelDebianFiles.cmake")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # every package below has a line of its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL runtime development)
if(KEL_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
if(TARGET kel_pixbuf_loader)
  list(APPEND CPACK_COMPONENTS_ALL desktop)
endif()
if(KEL_BUILD_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(ldconfig_trigger "${PROJECT_BINARY_DIR}/triggers")
file(WRITE "${ldconfig_trigger}" "activate-noawait ldconfig\n")
file(CHMOD "${ldconfig_trigger}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${ldconfig_trigger}")
set(exact_library "libkel1 (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkel1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "wavelet image codec library
The shared library, which takes all memory and all data through its
host's callbacks.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${exact_library}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "wavelet image codec library (development files)
Headers, the host kit, and the files by which CMake and pkg-config find
them.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kel)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${exact_library}")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "encode and decode images with the Kel wavelet codec
Turns image files (PNG, TIFF, JPEG and others) into Kel files and
back, lossless or lossy, and tells what is in them.")

# The caches of loaders and of MIME types are renewed by triggers of the packages that own them.
set(CPACK_DEBIAN_DESKTOP_PACKAGE_NAME kel-gdk-pixbuf)
set(CPACK_DEBIAN_DESKTOP_PACKAGE_DEPENDS "${exact_library}, shared-mime-info")
set(CPACK_DEBIAN_DESKTOP_DESCRIPTION "Kel pictures in programs that show images by gdk-pixbuf
The loader, a thumbnailer for file managers, and the MIME type image/x-kel.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kel)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
math(EXPR next_python "${Python_VERSION_MINOR} + 1")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${exact_library}, python3-numpy,\
 python3 (>= 3.${Python_VERSION_MINOR}~), python3 (<< 3.${next_python})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS
    "python3-pil, python3-zarr, python3-dask, python3-distributed")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "wavelet-coded pictures as arrays (Python 3)
Arrays of numpy to Kel files and back, pictures of any size of which
parts are read, a plugin for Pillow, a codec for Zarr, and fleets of
pictures over Dask.")

include(CPack)
