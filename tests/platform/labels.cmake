# Read by ctest after the platform binary's discovered tests: two labels
# each, which the discovery's PROPERTIES cannot pass as a list.  The test
# lists are the TEST_LIST variables of tests/CMakeLists.txt.
if(STOVIG_PLATFORM_FAST)
  set_tests_properties(${STOVIG_PLATFORM_FAST} PROPERTIES LABELS "unit;platform")
endif()
if(STOVIG_PLATFORM_REDIS)
  set_tests_properties(${STOVIG_PLATFORM_REDIS} PROPERTIES LABELS "platform;slow")
endif()
