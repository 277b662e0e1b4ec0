# Included after Qt is found when cross-compiling. A sysroot's Qt package files name the target's
# own moc, rcc and D-Bus generators, which the build machine cannot run: take the build machine's,
# which must be the same Qt release so that moc's output fits the sysroot's headers.
if(NOT Qt5_FOUND)
  message(FATAL_ERROR "Cross-building takes Qt 5 (ORVANE_QT=5)")
endif()
set(ORVANE_HOST_QT_BINDIR /usr/lib/qt5/bin CACHE PATH "The build machine's Qt 5 code generators")
execute_process(COMMAND ${ORVANE_HOST_QT_BINDIR}/moc -v OUTPUT_VARIABLE host_moc ERROR_VARIABLE host_moc
                RESULT_VARIABLE host_moc_rc)
string(STRIP "${host_moc}" host_moc)
if(NOT host_moc_rc EQUAL 0 OR NOT host_moc STREQUAL "moc ${Qt5Core_VERSION}")
  message(FATAL_ERROR "The build machine's ${ORVANE_HOST_QT_BINDIR}/moc is '${host_moc}'; the sysroot's Qt is "
                      "${Qt5Core_VERSION} (install qtbase5-dev-tools of the same release)")
endif()
foreach(tool moc rcc uic qdbuscpp2xml qdbusxml2cpp)
  foreach(ns Qt5 Qt)
    if(TARGET ${ns}::${tool})
      set_target_properties(${ns}::${tool} PROPERTIES IMPORTED_LOCATION ${ORVANE_HOST_QT_BINDIR}/${tool})
    endif()
  endforeach()
endforeach()
