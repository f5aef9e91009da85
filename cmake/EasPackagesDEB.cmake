# What is Debian's alone of the packages; EasPackages includes it.

# Debian's papers lie in a folder of each package's own; a plain `cmake --install` has no use for it.
set(papers ${PROJECT_BINARY_DIR}/packaging)
file(MAKE_DIRECTORY ${papers})
add_custom_command(
    OUTPUT ${papers}/changelog.gz ${papers}/changelog.Debian.gz
    COMMAND sh -c "\"${EAS_GZIP}\" -9nc CHANGELOG.md >'${papers}/changelog.gz'"
    COMMAND sh -c
            "\"${EAS_GZIP}\" -9nc packaging/debian/changelog >'${papers}/changelog.Debian.gz'"
    DEPENDS CHANGELOG.md packaging/debian/changelog
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    VERBATIM)
add_custom_target(packaging ALL DEPENDS ${papers}/changelog.gz ${papers}/changelog.Debian.gz)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    install(
        FILES packaging/debian/copyright ${papers}/changelog.gz ${papers}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${EAS_PACKAGE_OF_${component}}
        COMPONENT ${component}
        EXCLUDE_FROM_ALL)
    string(TOUPPER ${component} COMPONENT)
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${EAS_PACKAGE_OF_${component}})
    # The summary is the first line of the description.
    set(CPACK_COMPONENT_${COMPONENT}_DESCRIPTION
        "${summary_${component}}\n${about}\n.\n${has_${component}}")
endforeach()
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE libeas)
# Debug symbols go into packages of their own.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

# The library opens the driver manager at run time as "libodbc.so"; of unixODBC's packages the
# development one has that name.
set(driver_manager unixodbc-dev)
set(drivers "libsqliteodbc | odbc-mariadb")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS ${driver_manager})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS ${drivers})
# Programs linked against a library get a dependency on this version or a later one.
foreach(component library node)
    set(package ${EAS_PACKAGE_OF_${component}})
    string(REGEX REPLACE "[0-9]+$" "" name ${package})
    file(WRITE ${papers}/${component}/shlibs
         "${name} ${PROJECT_VERSION_MAJOR} ${package} (>= ${PROJECT_VERSION})\n")
    string(TOUPPER ${component} COMPONENT)
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA
        ${PROJECT_SOURCE_DIR}/packaging/debian/triggers ${papers}/${component}/shlibs)
endforeach()

set(CPACK_DEBIAN_NODE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_NODE_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${EAS_PACKAGE_OF_library} (= ${version}), ${EAS_PACKAGE_OF_node} (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "pkg-config, cmake")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# The tool carries the library's code in itself and runs where no library is installed.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${driver_manager})
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS ${drivers})
# Pictures would bring 129 packages (X libraries among them) to every node that is calibrated.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "gnuplot-nox | gnuplot, sqlite3, unixodbc, python3")

set(CPACK_DEBIAN_SLURM_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SLURM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_SLURM_PACKAGE_DEPENDS
    "${EAS_PACKAGE_OF_library} (= ${version}), ${EAS_PACKAGE_OF_node} (= ${version})")
if(slurm_release)
    string(APPEND CPACK_DEBIAN_SLURM_PACKAGE_DEPENDS
           ", slurm-wlm-basic-plugins (>= ${slurm_release})"
           ", slurm-wlm-basic-plugins (<< ${slurm_release}.99)")
endif()

set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any (>= 3.9)")
# Either library is opened by the first call that needs it: a compute node needs one of them only.
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS
    "${EAS_PACKAGE_OF_library} (>= ${PROJECT_VERSION}), ${EAS_PACKAGE_OF_node} (>= ${PROJECT_VERSION})")
