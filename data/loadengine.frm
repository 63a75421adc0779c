# Error texts of the load engine libraries: <key><TAB><text>; %s takes the parameters in order.
#
# CorvanthUtil: the parameter string (associative array) of a message.
10	Syntax error in the parameter string at "%s".
11	The parameter "%s" does not exist in the parameter string "%s".
