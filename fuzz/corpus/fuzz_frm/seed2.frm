-5	negative
2147483647	most %% %s
7	first
7	second
99999999999	over
