#!/bin/sh
# Runs each test of one GoogleTest suite in a process of its own (an unplugged virtual camera
# returns only when the process that held it ends), writing <suite>.<test>.xml beside; exits
# non-zero when any failed. Usage: run-cases.sh BINARY SUITE
binary=$1 suite=$2 status=0
for test in $("$binary" --gtest_list_tests --gtest_filter="$suite.*" | sed -n 's/^  \([^ ]*\).*/\1/p'); do
  "$binary" --gtest_filter="$suite.$test" --gtest_output="xml:$suite.$test.xml" || status=1
done
exit $status
