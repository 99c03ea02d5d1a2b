# ctest reads this when it starts, after programs.cmake of the build. Each quick suite becomes one
# test, since to start a program takes longer than most claims do. A suite whose name begins with Slow
# waits for the clock: each of its claims is a test by itself, so that they can wait side by side.
# ZEPH_TEST_PROGRAMS has the paths of the test programs, and ZEPH_WAITING_PROGRAM the name of one whose
# suites are all slow, if there is one.
#
# Slow and quick tests run side by side (script/test). Those that work take one of the "processors" of a
# resource specification each, and leave the processor to those that wait for the clock when these wake.

# Those that work, though each of their claims is a test by itself, and suites that wait for others.
set(working "^Slow(ZIXIndexRandom|Soak|Regex|OtherMakers)\\.")
set(waiting "^(SubmittedMail|RealMail|SMTPOverTheNetwork|Connections|Calls|SpecialVariableHosts)$")

# What takes long begins first: beginnings of names, and roughly the seconds.
set(long
  "Packages" 40 "SlowHosts" 40 "SlowZIXIndexRandom" 30 "SlowOtherMakers" 25 "SubmittedMail" 24
  "SlowExampleSite" 22 "SlowTime.ALimitOfZero" 21 "SlowSoak" 20 "MemoryTest" 20 "SlowTime.Hangup" 17
  "SlowShutdown.BesideA" 16 "SlowShutdown.AConnection" 16 "RealMail" 12 "SMTPOverTheNetwork" 12
  "DatabaseSharing" 12 "HotCode" 12 "SlowTime" 11 "SlowTask" 10 "SlowRegex" 10 "Dtoa" 10
  "CallScanner" 10 "ZIXIndexDamageTest" 10 "SlowPost" 9 "SlowLock" 9 "SlowCalls" 8
  "SlowWebServers" 8 "SlowServerFiles" 8 "SlowShutdown" 8 "DenseElements" 8 "UNIXTLSTest" 7
  "URLEncodedParser" 6 "Calls" 6 "Connections" 6 "FilesUnderFailures" 6 "IndexesUnderFailures" 6
  "LongWork" 6 "FrameReuse" 5 "Slow" 5)

foreach(program ${ZEPH_TEST_PROGRAMS})
  get_filename_component(name ${program} NAME)
  if(name STREQUAL "${ZEPH_WAITING_PROGRAM}")
    set(slow "")
  else()
    set(slow Slow)
  endif()
  if(NOT EXISTS ${program})
    add_test("${name} is not built" ${program})
    continue()
  endif()
  get_filename_component(folder ${program} DIRECTORY)
  execute_process(COMMAND ${program} --gtest_list_tests OUTPUT_VARIABLE listed RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${program} does not list its tests: ${result}")
  endif()
  # Values of parameters follow a "#" and may have any byte.
  string(REGEX REPLACE " *#[^\n]*" "" listed "${listed}")
  string(REGEX REPLACE "\n" ";" lines "${listed}")
  foreach(line ${lines})
    if(line MATCHES "^([^ ]+)\\.$")
      set(suite ${CMAKE_MATCH_1})
      if(suite MATCHES "^${slow}")
        continue()
      endif()
      set(test ${suite})
      set(filter ${suite}.*)
      set(label quick)
    elseif(suite MATCHES "^${slow}" AND line MATCHES "^  (.+)$")
      set(test ${suite}.${CMAKE_MATCH_1})
      set(filter ${test})
      set(label slow)
    else()
      continue()
    endif()
    set(command ${program} --gtest_filter=${filter} --gtest_brief=1)
    if((label STREQUAL quick AND NOT test MATCHES "${waiting}") OR test MATCHES "${working}")
      add_test(${test} nice ${command})
      set_tests_properties(${test} PROPERTIES RESOURCE_GROUPS "processors:1")
    else()
      add_test(${test} ${command})
    endif()
    set_tests_properties(${test} PROPERTIES LABELS ${label} WORKING_DIRECTORY ${folder}/../tests)
    # Systems are installed and booted then.
    if(test STREQUAL Packages AND DEFINED ENV{ZEPH_BARE_ROOT})
      set_tests_properties(${test} PROPERTIES TIMEOUT 2400)
    endif()
    set(rest ${long})
    while(rest)
      list(POP_FRONT rest beginning seconds)
      string(FIND "${test}" "${beginning}" at)
      if(at EQUAL 0)
        set_tests_properties(${test} PROPERTIES COST ${seconds})
        break()
      endif()
    endwhile()
  endforeach()
endforeach()
