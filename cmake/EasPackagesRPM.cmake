# What is the RPM distributions' alone of the packages; EasPackages includes it.
#
# Where things go is said by the preset "rpm": lib64, Slurm's plugins, Python's version.

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_PACKAGE_VENDOR "The libeas maintainers")
set(CPACK_RPM_PACKAGE_URL "https://libeas.invalid")
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Libraries")
set(CPACK_RPM_DEVELOPMENT_PACKAGE_GROUP "Development/Libraries")
set(CPACK_RPM_TOOLS_PACKAGE_GROUP "Applications/System")
set(CPACK_RPM_PYTHON_PACKAGE_GROUP "Development/Languages")
set(CPACK_RPM_CHANGELOG_FILE ${PROJECT_SOURCE_DIR}/packaging/rpm/changelog)
set(CPACK_STRIP_FILES ON)
# The built plugin includes Slurm's headers (adapters/slurm/LICENSE). The tag is the same for all
# packages, so it looks at the name.
set(CPACK_RPM_PACKAGE_LICENSE
    "%(test %{name} = eas-slurm && echo 'MIT AND GPL-2.0-or-later' || echo MIT)")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(package ${EAS_PACKAGE_OF_${component}})
    set(license_dir ${CMAKE_INSTALL_DATADIR}/licenses/${package})
    set(license LICENSE)
    if(component STREQUAL slurm)
        set(license adapters/slurm/LICENSE)
    endif()
    install(FILES ${PROJECT_SOURCE_DIR}/${license} DESTINATION ${license_dir}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
            EXCLUDE_FROM_ALL)
    string(TOUPPER ${component} COMPONENT)
    set(CPACK_RPM_${COMPONENT}_PACKAGE_NAME ${package})
    string(REGEX REPLACE "^energy" "Energy" summary "${summary_${component}}")
    set(CPACK_RPM_${COMPONENT}_PACKAGE_SUMMARY "${summary}")
    set(CPACK_RPM_${COMPONENT}_PACKAGE_DESCRIPTION "${about}\n\n${has_${component}}")
    set(CPACK_RPM_${COMPONENT}_USER_FILELIST "%license /usr/${license_dir}/LICENSE")
endforeach()

# Folders of others.
get_filename_component(python_parent ${EAS_PYTHON_DIR} DIRECTORY)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/share/bash-completion
    /usr/share/bash-completion/completions
    /usr/share/licenses
    /usr/share/man
    /usr/share/man/man1
    /usr/share/man/man3
    /usr/share/man/man5
    /usr/share/zsh
    /usr/${EAS_ZSH_DIR}
    /usr/${CMAKE_INSTALL_LIBDIR}/cmake
    /usr/${CMAKE_INSTALL_LIBDIR}/pkgconfig
    /usr/${EAS_PYTHON_DIR}
    /usr/${python_parent})
if(EAS_SLURM_PLUGIN_DIR)
    list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/${EAS_SLURM_PLUGIN_DIR})
endif()

# The library opens the driver manager at run time as "libodbc.so", a name that unixODBC's development
# package has.
set(driver_manager unixODBC-devel%{?_isa})
set(this "%{?_isa} = ${version}")
set(CPACK_RPM_LIBRARY_PACKAGE_REQUIRES ${driver_manager})
set(CPACK_RPM_TOOLS_PACKAGE_REQUIRES ${driver_manager})
set(CPACK_RPM_DEVELOPMENT_PACKAGE_REQUIRES "libeas${this}, libeasnode${this}")
set(CPACK_RPM_SLURM_PACKAGE_REQUIRES "libeas${this}, libeasnode${this}")
if(slurm_release)
    string(APPEND CPACK_RPM_SLURM_PACKAGE_REQUIRES
           ", slurm >= ${slurm_release}, slurm < ${slurm_release}.99")
endif()
set(CPACK_RPM_PYTHON_PACKAGE_ARCHITECTURE noarch)
set(CPACK_RPM_PYTHON_PACKAGE_REQUIRES "python3 >= 3.9")
# What CPack has no name for, weak dependencies above all. Either library is opened by the first call of
# Python that needs it: a compute node needs one of them only.
set(CPACK_RPM_SPEC_MORE_DEFINE
    "Packager: ${CPACK_PACKAGE_CONTACT}
%define _build_id_links none
%if \"%{name}\" == \"python3-eas\"
Recommends: libeas >= ${PROJECT_VERSION}, libeasnode >= ${PROJECT_VERSION}
%endif
%if \"%{name}\" == \"libeas\" || \"%{name}\" == \"eas-tools\"
Recommends: (mariadb-connector-odbc or sqliteodbc)
%endif
%if \"%{name}\" == \"eas-tools\"
Suggests: gnuplot, sqlite, unixODBC, python3
%endif")

foreach(COMPONENT LIBRARY NODE)
    set(CPACK_RPM_${COMPONENT}_POST_INSTALL_SCRIPT_FILE ${PROJECT_SOURCE_DIR}/packaging/rpm/ldconfig)
    set(CPACK_RPM_${COMPONENT}_POST_UNINSTALL_SCRIPT_FILE
        ${PROJECT_SOURCE_DIR}/packaging/rpm/ldconfig)
    set(CPACK_RPM_${COMPONENT}_PACKAGE_REQUIRES_POST /sbin/ldconfig)
    set(CPACK_RPM_${COMPONENT}_PACKAGE_REQUIRES_POSTUN /sbin/ldconfig)
endforeach()
