# Installation rules, included at the end of the top-level CMakeLists.txt.
#
# Two components:
#   daemon  the daemon (sbin), chmgrctl (bin), manual pages, the systemd unit
#           and the metrics timer with its service, the alerting rules,
#           the tmpfiles rule, the options file, the cards.conf template and
#           example, bash completion, operator documentation;
#   sim     the simulated chassis: the hardware emulator and the demo tool
#           with their manual pages and documentation, and the systemctl
#           stand-in the demo runs the daemon with.
#
#   cmake --install BUILD --prefix /usr                      # everything
#   DESTDIR=/tmp/stage cmake --install BUILD --prefix /usr --component sim
#
# Files written by other parts of the project that may not exist yet are
# installed OPTIONAL: they are picked up as soon as they appear.

set(CHMGR_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Directory of the systemd unit (relative paths are under the prefix)")
set(CHMGR_TMPFILES_DIR "lib/tmpfiles.d" CACHE STRING
    "Directory of the tmpfiles.d rule (relative paths are under the prefix)")
set(CHMGR_SIM_DOCDIR "${CMAKE_INSTALL_DATAROOTDIR}/doc/chassis-mgr-sim" CACHE STRING
    "Documentation directory of the simulated chassis (component sim)")

set(_chmgr_src "${CMAKE_CURRENT_SOURCE_DIR}")

# --- component daemon ------------------------------------------------------
install(TARGETS chassis-mgr RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT daemon)
if(TARGET chmgrctl)
  install(TARGETS chmgrctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT daemon)
endif()

install(FILES "${_chmgr_src}/docs/man/chassis-mgr.8"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT daemon)
install(FILES "${_chmgr_src}/docs/man/chmgrctl.8"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT daemon OPTIONAL)
install(FILES "${_chmgr_src}/docs/man/cards.conf.5"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man5" COMPONENT daemon)

# The unit names the daemon and its options file by absolute path: make them
# follow the prefix (the file in packaging/ is written for the prefix /usr).
set(_chmgr_unit_in "${_chmgr_src}/packaging/systemd/chassis-mgr.service")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_chmgr_unit_in}")
file(READ "${_chmgr_unit_in}" _chmgr_unit)
string(REPLACE "ExecStart=/usr/sbin/" "ExecStart=${CMAKE_INSTALL_FULL_SBINDIR}/" _chmgr_unit "${_chmgr_unit}")
string(REPLACE "EnvironmentFile=-/etc/default/" "EnvironmentFile=-${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/"
       _chmgr_unit "${_chmgr_unit}")
file(CONFIGURE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/packaging/chassis-mgr.service"
     CONTENT "${_chmgr_unit}" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/packaging/chassis-mgr.service"
        DESTINATION "${CHMGR_SYSTEMD_UNIT_DIR}" COMPONENT daemon)

# The metrics collection: a timer and the one-shot service it starts.
set(_chmgr_metrics_in "${_chmgr_src}/packaging/systemd/chassis-mgr-metrics.service")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_chmgr_metrics_in}")
file(READ "${_chmgr_metrics_in}" _chmgr_metrics)
string(REPLACE "ExecStart=/usr/bin/" "ExecStart=${CMAKE_INSTALL_FULL_BINDIR}/" _chmgr_metrics "${_chmgr_metrics}")
file(CONFIGURE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/packaging/chassis-mgr-metrics.service"
     CONTENT "${_chmgr_metrics}" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/packaging/chassis-mgr-metrics.service"
              "${_chmgr_src}/packaging/systemd/chassis-mgr-metrics.timer"
        DESTINATION "${CHMGR_SYSTEMD_UNIT_DIR}" COMPONENT daemon)

install(FILES "${_chmgr_src}/packaging/tmpfiles/chassis-mgr.conf"
        DESTINATION "${CHMGR_TMPFILES_DIR}" COMPONENT daemon)
install(FILES "${_chmgr_src}/packaging/default/chassis-mgr"
        DESTINATION "${CMAKE_INSTALL_FULL_SYSCONFDIR}/default" COMPONENT daemon)

# cards.conf is the daemon's state as much as its configuration: it is never
# installed into /etc by cmake.  The template is what a package copies there
# when the file is missing; the example is the same text, for reading.
install(FILES "${_chmgr_src}/packaging/cards.conf.example"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/chassis-mgr" RENAME cards.conf COMPONENT daemon)
install(FILES "${_chmgr_src}/packaging/cards.conf.example"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples" RENAME cards.conf COMPONENT daemon)

install(FILES "${_chmgr_src}/contrib/bash-completion/chmgrctl"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT daemon OPTIONAL)

install(FILES "${_chmgr_src}/README.md" "${_chmgr_src}/docs/operations.md"
              "${_chmgr_src}/docs/chmgrctl.schema.json"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT daemon)
# Alerting rules for Prometheus, to be copied where rule_files: points.
install(FILES "${_chmgr_src}/packaging/prometheus/chassis-mgr-alerts.yml"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/prometheus" COMPONENT daemon)
install(FILES "${_chmgr_src}/docs/architecture.md" "${_chmgr_src}/docs/cards-conf.md"
        DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT daemon OPTIONAL)

# --- component sim ---------------------------------------------------------
install(PROGRAMS "${_chmgr_src}/tools/chmgr-hwemu"
        DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT sim)
install(PROGRAMS "${_chmgr_src}/tools/chmgr-demo"
        DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT sim OPTIONAL)
install(FILES "${_chmgr_src}/docs/man/chmgr-hwemu.1" "${_chmgr_src}/docs/man/chmgr-demo.1"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT sim)
# The demo's systemctl: records the reloads it is asked for, reloads nothing.
install(PROGRAMS "${_chmgr_src}/tests/system/standins/recorder.py"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/chassis-mgr-sim" RENAME systemctl COMPONENT sim)
install(FILES "${_chmgr_src}/docs/simulator.md"
        DESTINATION "${CHMGR_SIM_DOCDIR}" COMPONENT sim)
install(FILES "${_chmgr_src}/docs/hardware-emulator.md"
        DESTINATION "${CHMGR_SIM_DOCDIR}" COMPONENT sim OPTIONAL)
