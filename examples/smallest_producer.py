import sys

import orvane

# If no socket is given, the stream uses the only server that runs on this machine.
try:
    with orvane.Stream(socket=sys.argv[1] if len(sys.argv) > 1 else None, label="oranges") as stream:
        stream.write(b"14 crates of oranges")
    print(stream.receipt)
except orvane.Error as error:
    sys.exit(f"producer: {error}")
