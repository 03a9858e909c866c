# A client as others write it: prints the first fix, by python3-gps.
import sys

import gps

session = gps.gps(host="127.0.0.1", port=sys.argv[1], mode=gps.WATCH_ENABLE)
for _ in range(200):
    report = session.next()
    if report["class"] == "TPV" and session.fix.mode >= gps.MODE_2D:
        print(f"mode {session.fix.mode}, {session.fix.latitude:.4f} {session.fix.longitude:.4f}")
        sys.exit(0)
sys.exit(1)
