1	one %s
# comment
10	Syntax error at "%s".
11	The parameter "%s" in "%s".
