# Debian packages, one per component of the installation:
#
#   libeas1       library       libeas.so.1
#   libeasnode1   node          libeasnode.so.1
#   libeas-dev    development   headers, CMake package, pkg-config file, man3, C examples
#   eas-tools     tools         easctl, schemas, samples, guides
#   libeas-slurm  slurm         the Slurm adapter and its guide, where it was built
#   python3-eas   python        import eas
#
# cmake --workflow --preset package

set(version ${PROJECT_VERSION}-1)
set(library_package libeas${PROJECT_VERSION_MAJOR})
set(EAS_PACKAGE_OF_library ${library_package})
set(node_package libeasnode${PROJECT_VERSION_MAJOR})
set(EAS_PACKAGE_OF_node ${node_package})
set(EAS_PACKAGE_OF_development libeas-dev)
set(EAS_PACKAGE_OF_tools eas-tools)
set(EAS_PACKAGE_OF_slurm libeas-slurm)
set(EAS_PACKAGE_OF_python python3-eas)

# An installation rule without a package would silently be left out of all of them.
get_cmake_property(CPACK_COMPONENTS_ALL COMPONENTS)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    if(NOT DEFINED EAS_PACKAGE_OF_${component})
        message(FATAL_ERROR "install(): no package has the component \"${component}\"")
    endif()
endforeach()

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
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libeas)
# Each package has a summary of its own, the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "The libeas maintainers <maintainers@libeas.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE libeas)
# Debug symbols go into packages of their own.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(about "libeas predicts, from the counters of one run, how much power and time
a job would need at every processor frequency, and selects the one that
wastes least.")
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
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "energy-aware job scheduling: shared library
${about}
.
This package has the library that a batch scheduler or a node daemon loads.")

set(CPACK_DEBIAN_NODE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_NODE_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_NODE_DESCRIPTION "energy-aware job scheduling: library for compute nodes
${about}
.
This package has the library that measures a node (cycles, instructions,
memory traffic, joules) and sets its processor frequencies. It needs no
database.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${library_package} (= ${version}), ${node_package} (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "pkg-config, cmake")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "energy-aware job scheduling: development files
${about}
.
This package has the headers, the CMake package, the pkg-config file,
the manual pages of the functions, and example programs in C.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# The tool carries the library's code in itself and runs where no library is installed.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${driver_manager})
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS ${drivers})
# Pictures would bring 129 packages (X libraries among them) to every node that is calibrated.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "gnuplot-nox | gnuplot, sqlite3, unixodbc, python3")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "energy-aware job scheduling: administrator's tool
${about}
.
This package has easctl, which sets up the database, calibrates the
nodes, shows tags and their savings and finds out why something does not
work; the database schemas; a sample cluster and sample ODBC
configuration; the guides.")

set(CPACK_DEBIAN_SLURM_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SLURM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_SLURM_PACKAGE_DEPENDS "${library_package} (= ${version})")
# Slurm loads plugins of its own release only: 0x160508 is 22.05.8, any 22.05 will do.
if(EXISTS "${SLURM_INCLUDE_DIR}/slurm/slurm_version.h")
    file(STRINGS ${SLURM_INCLUDE_DIR}/slurm/slurm_version.h line REGEX "SLURM_VERSION_NUMBER 0x")
    string(REGEX MATCH "0x(..)(..).." line "${line}")
    math(EXPR year "0x${CMAKE_MATCH_1}")
    math(EXPR month "0x${CMAKE_MATCH_2}")
    string(REGEX MATCH "..$" month 0${month})
    string(APPEND CPACK_DEBIAN_SLURM_PACKAGE_DEPENDS
           ", slurm-wlm-basic-plugins (>= ${year}.${month})"
           ", slurm-wlm-basic-plugins (<< ${year}.${month}.99)")
endif()
set(CPACK_COMPONENT_SLURM_DESCRIPTION "energy-aware job scheduling: Slurm adapter
${about}
.
This package connects the library to the workload manager Slurm.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any (>= 3.9)")
# Either library is opened by the first call that needs it: a compute node needs one of them only.
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS
    "${library_package} (>= ${PROJECT_VERSION}), ${node_package} (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "energy-aware job scheduling: Python package
${about}
.
This package has the Python package eas: the functions of a scheduler,
and the meter, frequencies and CPUs of a compute node.")

include(CPack)
