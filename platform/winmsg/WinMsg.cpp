// Windows on Unix-domain sockets.
