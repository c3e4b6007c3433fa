/// What tarn --help prints.
#include "help.h"

namespace tools {

const char* const help =
    R"(tarn: the ubus message bus from the command line.

  tarn call PATH METHOD [JSON] [-t SECONDS] [-s]
      Calls METHOD of the object PATH with the fields of the JSON object, and prints every reply
      as it comes, as JSON, indented, or one a line with -s (or -S). A JSON of - is read from
      standard input. Gives up after SECONDS (default 30, 0 never).
  tarn list [PATTERN] [-v] [-s] [-t SECONDS]
      Prints the paths of the objects on the bus, of all or of those that match PATTERN; with -v
      their methods too. With -s all of that as JSON.
  tarn listen [PATTERN...] [-s] [-T] [-v] [-t SECONDS]
      Prints the events whose id matches a PATTERN (default: all) until it is ended. With -v it
      says when the bus has registered it.
  tarn send ID [JSON] [-t SECONDS]
      Sends the event ID with the fields of the JSON object, which may be - as for call.
  tarn subscribe PATH... [-s] [-T] [-v] [-t SECONDS]
      Prints the notifications of the objects, now and whenever they are there, until it is ended.
      With -v every line names the object too.
  tarn wait PATH... [-t SECONDS]
      Waits until all these objects are on the bus, and for the bus itself. Calls none of them.
      Gives up after SECONDS (default 0, never). Also: wait_for.
  tarn monitor [-m TYPE]... [-M r|t] [-s] [-T] [-v] [-t SECONDS]
      Prints all messages that pass the bus until it is ended; of the TYPEs given only (invoke,
      status, ...), only those that the daemon received (r) or transmitted (t). With -v as listen.
      For root.
  tarn --version
  tarn --help

  -s  JSON, one value a line             -T  a time stamp in front of every line
  -S  the simple output of ubus          -t  the limit in whole seconds
  -v  more                               --  what follows is no option

Options are accepted anywhere, also before the command. A PATTERN that ends in * stands for all that
begins with what precedes it. -s takes no socket, as it does for ubus.

listen, subscribe, wait and monitor survive a restart of the bus and connect again. SIGINT (Ctrl-C),
SIGTERM and -t end listen, subscribe and monitor with status 0 and a count on standard error.

Integers go out 32 bits wide when they fit (signed), else 64; numbers with a point as doubles, null
as a field without type and data. In messages, a byte of 0 or 1 is printed as false or true, a field
without a type as hexadecimal digits, or as null when it has no data.

Errors go to standard error, with their subject: 'tarn: demo.fly: Method not found'.
Exit status: 0 success, 1 anything that is not below, and
  of call: 2 wrong usage or JSON, 3 no bus, 4 timed out, 10 + N when the call ended with ubus
      status N (14 no such object, 13 no such method, ...);
  of the others, as ubus: the ubus status N (4 no such object, 6 permission denied, 7 timed out,
      12 no JSON), 254 wrong usage, 255 no bus. An unknown command or option is 2.
)";

} // namespace tools
