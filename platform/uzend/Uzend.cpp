// Code pages over iconv.
