# Each example shows that it works, and says so with what it prints.
function(tarn_example_test example expected)
  add_test(NAME example.${example} COMMAND example_${example})
  set_tests_properties(example.${example} PROPERTIES
    LABELS e2e
    TIMEOUT 30
    RUN_SERIAL ON
    PASS_REGULAR_EXPRESSION "${expected}")
endfunction()
tarn_example_test(two_ends "^bob got \"hello\"\n$")
tarn_example_test(own_socket "bob got \"hello\"")
tarn_example_test(send_file "^33554432 bytes arrived unchanged\n$")
tarn_example_test(slow_reader "nothing lost")
tarn_example_test(attached_socket "you said: is anybody there\\?")
tarn_example_test(chat_server "bob hears: hello bob")
tarn_example_test(tcp_echo "came back: echo this")
