# Debian packages from the install rules' components (`cpack -G DEB` in the build folder):
#   libkwqimage1      runtime   the library, and the data and GStreamer elements it loads
#   libkwqimage-qt1   qt        the Qt 6 widget library
#   libkwqimage-dev   dev       headers, CMake package, pkg-config file, the .so links
#   kwqimage-tools    tools     the kwq program
#   python3-kwqimage  python    the kwqimage module
# Every version comes from project(); dpkg-shlibdeps turns each binary's libraries into Debian
# package names, and the lines below add what is loaded at run time rather than linked.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kwqimage)
set(CPACK_PACKAGE_VENDOR "KWQImage developers")
set(CPACK_PACKAGE_CONTACT "KWQImage developers <kwqimage@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Camera capture and image quality for identity documents")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET KWQImageQt)
  list(APPEND CPACK_COMPONENTS_ALL qt)
endif()
if(TARGET kwq)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET _kwqimage)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the staging folders, and named by the component depends below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/qt)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkwqimage${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Loaded by path or by element name, so dpkg-shlibdeps cannot see them: the face cascades and the
# landmark model; appsrc/videoconvert/decodebin (base), v4l2src/qtmux (good), x264enc (ugly).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "opencv-data, libdlib-data, gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-ugly")
# H.264 decoding of recorded movies, the synthetic scenes' text and the portrait scene's photo.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "gstreamer1.0-libav, fonts-dejavu-core")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "python3-skimage")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Camera capture and image quality for identity documents and portraits\n\
 The capture engine, live face, PDF417, QR and card detection, quality measures, views and\n\
 the recorder, on OpenCV, dlib, zxing-cpp and GStreamer.")

set(CPACK_DEBIAN_QT_PACKAGE_NAME libkwqimage-qt${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_QT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_QT_DESCRIPTION "KWQImage Qt 6 widget showing the library's views")
set(CPACK_COMPONENT_QT_DEPENDS runtime)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkwqimage-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "pkg-config | pkgconf")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "qt6-base-dev, cmake")
set(CPACK_DEBIAN_DEV_DESCRIPTION "KWQImage headers, CMake package and pkg-config file")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
if(TARGET KWQImageQt)
  list(APPEND CPACK_COMPONENT_DEV_DEPENDS qt)
endif()

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kwqimage-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "opencv-doc")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "kwq: run the KWQImage capture engine and measures")
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
if(TARGET KWQImageQt)
  list(APPEND CPACK_COMPONENT_TOOLS_DEPENDS qt)
endif()

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kwqimage)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# The module is built for one interpreter's ABI.
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${KWQ_PYTHON_DEB_DEPENDS}")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-dask, python3-distributed")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "KWQImage for Python: measures, detectors and the engine")
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)

include(CPack)
