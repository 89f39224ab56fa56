# talvexctl's words, written out: every command (hidden ones too) and start's
# boot options. The completion must offer each and the manual page describe it.
talvexctl_commands="help reset ping start stop monitor gettalvexstate readreg writereg bb timesync tymesync
  cma spi i2c mem gpio rate fw0 fw1 conn pmu get set setstate wake halt halt_ms profile clkredirect clkmeasure
  clkstartup powerlog setbaudrate listclients listsensors sensorinfo panic report setproperty uart ioreport
  cpuload perfmon"
talvexctl_start_options="--noautobaud --nowaitforready --notimesync --noheartbeat --noconfig --debug --nopaniccheck"
