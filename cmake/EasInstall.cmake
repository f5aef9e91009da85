# What `cmake --install` lays down beside the headers (EasSharedLibrary): libraries, CMake package,
# pkg-config files, examples, schemas, guides, manual pages. The components are those of the packages
# (EasPackages).

include(CMakePackageConfigHelpers)
include(EasManPages)

install(TARGETS eas EXPORT eas-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT library
                NAMELINK_COMPONENT development)
install(TARGETS easnode EXPORT eas-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
                COMPONENT node
                NAMELINK_COMPONENT development)

set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/eas)
install(EXPORT eas-targets NAMESPACE eas:: DESTINATION ${cmake_dir} COMPONENT development)
configure_package_config_file(cmake/eas-config.cmake.in eas-config.cmake
                              INSTALL_DESTINATION ${cmake_dir})
write_basic_package_version_file(eas-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/eas-config.cmake ${PROJECT_BINARY_DIR}/eas-config-version.cmake
        DESTINATION ${cmake_dir} COMPONENT development)

file(RELATIVE_PATH EAS_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
set(EAS_PC_ABOUT_eas "${PROJECT_DESCRIPTION}")
set(EAS_PC_ABOUT_easnode "Meter and processor frequencies of a compute node")
foreach(EAS_PC_NAME eas easnode)
    set(EAS_PC_ABOUT "${EAS_PC_ABOUT_${EAS_PC_NAME}}")
    configure_file(cmake/eas.pc.in ${EAS_PC_NAME}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${EAS_PC_NAME}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# The samples keep their places towards each other: load-sqlite finds the schema in ../../sql.
set(data_dir ${CMAKE_INSTALL_DATADIR}/eas)
install(FILES examples/scheduler.c examples/node_daemon.c examples/node_meter.c
              examples/node_frequency.c DESTINATION ${data_dir}/examples
        COMPONENT development)
install(DIRECTORY examples/cluster examples/galera examples/haproxy examples/hooks examples/metrics
                  examples/odbc
        DESTINATION ${data_dir}/examples COMPONENT tools USE_SOURCE_PERMISSIONS)
install(DIRECTORY sql DESTINATION ${data_dir} COMPONENT tools)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/eas COMPONENT tools
        FILES_MATCHING PATTERN "*.md" PATTERN architecture.svg PATTERN man EXCLUDE
        PATTERN developer-guide.md EXCLUDE
        PATTERN openpbs.md EXCLUDE
        PATTERN site EXCLUDE
        PATTERN slurm.md EXCLUDE)
install(FILES docs/developer-guide.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/eas
        COMPONENT development)

# Pure Python: one copy serves every version of it. Debian looks in a folder without a version, others
# in lib/python3.X/site-packages.
set(EAS_PYTHON_DIR lib/python3/dist-packages CACHE STRING "Where Python looks for packages")
install(DIRECTORY python/eas DESTINATION ${EAS_PYTHON_DIR} COMPONENT python
        FILES_MATCHING PATTERN "*.py" PATTERN py.typed PATTERN __pycache__ EXCLUDE)
install(FILES python/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-eas
        COMPONENT python)
install(FILES docs/openpbs.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/eas COMPONENT python)
install(FILES adapters/openpbs/eas_hook.py DESTINATION ${data_dir}/openpbs COMPONENT python)
