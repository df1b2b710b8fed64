# The examples and the tools run as programs, each checked by its exit status
# and output (run_program.cmake). Included from tests/CMakeLists.txt.
# On the host each program runs inside kelo-run: the services among them
# meet the camera's fixed /dev/shm and agent port, which are then private.
# A host that refuses the namespaces skips them rather than touch the real ones.
set(KELO_EMU ${CMAKE_CROSSCOMPILING_EMULATOR})
if(KELO_EMU)
  find_program(KELO_UNSHARE unshare REQUIRED)
endif()
set(KELO_NO_NAMESPACES "kelo-run: the kernel refused a private user namespace")

# kelo_program_test(NAME STATUS MATCH PROGRAM [ARG ...]): MATCH may be "".
function(kelo_program_test name status match)
  list(JOIN ARGN "^^" cmd)
  if(KELO_EMU)
    # kelo-run here is built for the camera; util-linux's unshare gives the
    # emulated program the same private /dev/shm and loopback instead.
    list(JOIN KELO_EMU "^^" emu)
    set(cmd "${KELO_UNSHARE}^^-rmn^^sh^^-c^^mount -t tmpfs tmpfs /dev/shm && ip link set lo up && exec \"$@\"^^sh^^${emu}^^${cmd}")
  else()
    set(cmd "$<TARGET_FILE:kelo-run>^^--^^${cmd}")
  endif()
  set(run ${CMAKE_COMMAND} "-DCMD=${cmd}" -DSTATUS=${status})
  if(NOT match STREQUAL "")
    list(APPEND run "-DMATCH=${match}")
  endif()
  list(APPEND run -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/run_program.cmake)
  add_test(NAME ${name} COMMAND ${run})
  set_tests_properties(${name} PROPERTIES TIMEOUT 60 LABELS "examples"
    ENVIRONMENT "ASAN_OPTIONS=detect_leaks=0;KELO_LOG_FILE=-" SKIP_REGULAR_EXPRESSION "${KELO_NO_NAMESPACES}")
endfunction()

# Each example prints what it did; the values are the references (RFC 1321
# for MD5, RFC 4648 for base64), not whatever the code happens to print.
kelo_program_test(example_av_packets 0
  "command 0x101, 9 payload bytes \"channel=1\".*command 0x102, 0 payload.*acknowledgement of 0x101: 0.*acknowledgement of 0x102: 0.*left over: 0 bytes at the service, 0 at the client"
  $<TARGET_FILE:av_packets>)
kelo_program_test(example_encodings 0
  "hex: 286c07a100ff.*base64: Zm9vYmFy, back: foobar.*ssid \"Home Net\", key \"a\\+b\\+c\", pin absent.*md5\\(\"abc\"\\): 900150983cd24fb0d6963f7d28e17f72"
  $<TARGET_FILE:encodings>)
kelo_program_test(example_files 0 "settings: {\"fps\":15}\n.*pid file: 4242\n.*usage of state/: 2 KiB"
  $<TARGET_FILE:files>)
kelo_program_test(example_timers 0 "tick 5 after.*5 ticks, the timer is disarmed" $<TARGET_FILE:timers>)
kelo_program_test(example_log_demo 0 "\\[  crit\\] storage /mnt/sdcard is read-only" $<TARGET_FILE:log_demo>)

# The demo service refuses a bad command line before it starts anything, with
# a reason and status 2; --help and a missing --name are the library's (0, 127).
# Those that get past app_init connect to the agent's fixed port (kelo-run's own).
set(svc $<TARGET_FILE:demo_service>)
kelo_program_test(demo_service_unknown_option 2 "unrecognized option '--bogus'.*bad command line" ${svc} --name x --bogus)
kelo_program_test(demo_service_missing_argument 2 "option '--name' requires an argument.*bad command line" ${svc} --name)
kelo_program_test(demo_service_stray_argument 2 "unexpected argument \"extra\"" ${svc} --name x extra)
kelo_program_test(demo_service_bad_interval 2 "--interval takes whole seconds" ${svc} -n x -i 5s)
kelo_program_test(demo_service_missing_font 2 "cannot read the font /nonexistent/f.ttf" ${svc} -n x -f /nonexistent/f.ttf)
kelo_program_test(demo_service_help 0 "Required Options:\n  -n,--name=ARG.*-f,--font=ARG" ${svc} --help)
kelo_program_test(demo_service_no_name 127 "'--name' is required" ${svc})

# kelo-osd takes a font only from a regular file, as the library does: a FIFO
# (which would block the open) and a directory get a message and status 1.
set(osd_fifo ${CMAKE_CURRENT_BINARY_DIR}/osd-font.fifo)
add_test(NAME kelo_osd_make_fifo COMMAND sh -c "rm -f '${osd_fifo}' && mkfifo '${osd_fifo}'")
set_tests_properties(kelo_osd_make_fifo PROPERTIES FIXTURES_SETUP osd_fifo LABELS "examples")
kelo_program_test(kelo_osd_font_fifo 1 "kelo-osd: ${osd_fifo} is not a regular file"
  $<TARGET_FILE:kelo-osd> --font ${osd_fifo} -o ${CMAKE_CURRENT_BINARY_DIR}/osd-fifo.png)
kelo_program_test(kelo_osd_font_directory 1 "kelo-osd: ${CMAKE_CURRENT_BINARY_DIR} is not a regular file"
  $<TARGET_FILE:kelo-osd> --font ${CMAKE_CURRENT_BINARY_DIR} -o ${CMAKE_CURRENT_BINARY_DIR}/osd-dir.png)
set_tests_properties(kelo_osd_font_fifo kelo_osd_font_directory PROPERTIES TIMEOUT 20)
set_tests_properties(kelo_osd_font_fifo PROPERTIES FIXTURES_REQUIRED osd_fifo)

# kelo-loglevel reads a level as services read KELO_LOG_LEVEL, kept to -1..7
# ("none" would let everything through); a refused word never reaches the
# shared region (setting one would change the machine's threshold).
foreach(bad none bogus 8)
  kelo_program_test(kelo_loglevel_refuses_${bad} 2
    "usage: kelo-loglevel .LEVEL.\n  LEVEL: -1..7 or one of emerg alert crit err warn notice info debug"
    $<TARGET_FILE:kelo-loglevel> ${bad})
endforeach()

# The agent refuses a script it cannot use, before it listens (port 0: a free
# one, should it ever get that far).
set(agent $<TARGET_FILE:kelo-agent>)
kelo_program_test(agent_script_directory 2 "kelo-agent: cannot read .*: Is a directory"
  ${agent} --port 0 --script ${CMAKE_CURRENT_LIST_DIR})
kelo_program_test(agent_script_unreadable 2 "kelo-agent: cannot read .*: Not a directory"
  ${agent} --port 0 --script ${CMAKE_CURRENT_LIST_FILE}/script)

# Line editing and history at a terminal, when the agent has libedit; script(1)
# (util-linux) gives it a pty.
find_program(KELO_SCRIPT_PROGRAM script)
if(KELO_SCRIPT_PROGRAM AND NOT CMAKE_CROSSCOMPILING AND KELO_AGENT_EDITLINE)
  add_test(NAME agent_terminal_history
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/agent_terminal.sh $<TARGET_FILE:kelo-agent> ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(agent_terminal_history PROPERTIES TIMEOUT 30 LABELS "examples")
endif()

# --pretty, and the whole `make demo` session (agent, service, OSD stamp,
# logging), which runs inside kelo-run by itself.
if(NOT CMAKE_CROSSCOMPILING)
  add_test(NAME agent_pretty COMMAND $<TARGET_FILE:kelo-run> -- ${CMAKE_CURRENT_LIST_DIR}/agent_pretty.sh
    $<TARGET_FILE:kelo-agent> $<TARGET_FILE:demo_service> ${CMAKE_CURRENT_BINARY_DIR})
  add_test(NAME demo_script COMMAND ${PROJECT_SOURCE_DIR}/scripts/demo ${PROJECT_BINARY_DIR})
  set_tests_properties(agent_pretty demo_script PROPERTIES TIMEOUT 120 LABELS "examples"
    ENVIRONMENT "ASAN_OPTIONS=detect_leaks=0" SKIP_REGULAR_EXPRESSION "${KELO_NO_NAMESPACES}")
endif()
