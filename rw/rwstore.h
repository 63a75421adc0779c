// Persistence seam of the container layer. Every collectable class carries
// four operations that restore and store an object to a virtual stream or to a
// file; the product never persists objects this way, so the streams and the
// file are opaque types here and those operations do nothing. They keep their
// places in each class's table of virtual operations all the same.
#pragma once

class RWvistream;  // virtual input stream
class RWvostream;  // virtual output stream
class RWFile;      // binary file
