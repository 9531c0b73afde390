# The system extension, and around it the application that carries it. Built on a Mac only:
#
#   Ostravel.app/Contents/MacOS/ostravel-host
#   Ostravel.app/Contents/Library/SystemExtensions/<identifier>.systemextension
#
# Nothing is signed here; see Packaging/macos/sign-and-notarise.sh.
set(OSTRAVEL_TEAM_IDENTIFIER "XXXXXXXXXX" CACHE STRING "The ten characters of the Apple team")
set(OSTRAVEL_BUILD_NUMBER "1" CACHE STRING "CFBundleVersion; raise it with every build that replaces one")
set(OSTRAVEL_HOST_IDENTIFIER com.ostravel.desktop)
set(OSTRAVEL_EXTENSION_IDENTIFIER com.ostravel.desktop.extension)
# Begins with the team, so that it needs no registration.
set(OSTRAVEL_APP_GROUP ${OSTRAVEL_TEAM_IDENTIFIER}.com.ostravel.desktop)

enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

if(NOT CMAKE_OSX_DEPLOYMENT_TARGET VERSION_EQUAL 11.0)
  message(FATAL_ERROR "Configure with -DCMAKE_OSX_DEPLOYMENT_TARGET=11.0")
endif()

add_subdirectory(${PROJECT_SOURCE_DIR}/Platform/macOS ${PROJECT_BINARY_DIR}/Platform/macOS)

set(OSTRAVEL_PACKAGING ${PROJECT_SOURCE_DIR}/Packaging/macos)
foreach(entitlements Extension-Development Extension-DeveloperID Host-Development Host-DeveloperID)
  configure_file(${OSTRAVEL_PACKAGING}/${entitlements}.entitlements.in
    ${PROJECT_BINARY_DIR}/entitlements/${entitlements}.entitlements @ONLY)
endforeach()

add_executable(ostravel_system_extension MACOSX_BUNDLE main_macos.mm)
set_target_properties(ostravel_system_extension PROPERTIES
  OUTPUT_NAME ${OSTRAVEL_EXTENSION_IDENTIFIER}
  BUNDLE_EXTENSION systemextension
  MACOSX_BUNDLE_INFO_PLIST ${OSTRAVEL_PACKAGING}/Extension-Info.plist.in)
target_compile_options(ostravel_system_extension PRIVATE -fno-objc-arc)
target_link_libraries(ostravel_system_extension PRIVATE FilterDataProvider PlatformMacOS)

add_subdirectory(${PROJECT_SOURCE_DIR}/Host/macOS ${PROJECT_BINARY_DIR}/Host/macOS)

# The application as it is signed and installed.
set(OSTRAVEL_APPLICATION ${PROJECT_BINARY_DIR}/Ostravel.app)
add_custom_target(ostravel_application ALL
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${OSTRAVEL_APPLICATION}
  COMMAND ${CMAKE_COMMAND} -E copy_directory $<TARGET_BUNDLE_DIR:ostravel-host> ${OSTRAVEL_APPLICATION}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${OSTRAVEL_APPLICATION}/Contents/Library/SystemExtensions
  COMMAND ${CMAKE_COMMAND} -E copy_directory $<TARGET_BUNDLE_DIR:ostravel_system_extension>
    ${OSTRAVEL_APPLICATION}/Contents/Library/SystemExtensions/${OSTRAVEL_EXTENSION_IDENTIFIER}.systemextension
  DEPENDS ostravel-host ostravel_system_extension
  VERBATIM)
