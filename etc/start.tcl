# The default site's start script. sfhost evaluates it after the library has
# started (config.tcl has run, the log is open) when no script is named on its
# command line. Services that need the HTTP commands are started from here.

sf_log 1 "site [file tail ${sf.rootdir}] started: root ${sf.rootdir}, data ${sf.datdir}"
