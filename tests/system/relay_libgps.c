/* A client as others write it: prints the first fix and the sky, by libgps. */
#include <gps.h>
#include <stdio.h>

enum { kWaitUs = 10000000, kReportsMax = 200 };

int main(int argc, char** argv) {
    struct gps_data_t data;
    int mode = 0;
    if (argc != 2 || gps_open("127.0.0.1", argv[1], &data) != 0) {
        return 1;
    }
    gps_stream(&data, WATCH_ENABLE | WATCH_JSON, NULL);
    for (int i = 0; i < kReportsMax && gps_waiting(&data, kWaitUs); ++i) {
        if (gps_read(&data, NULL, 0) < 0) {
            return 2;
        }
        if ((data.set & LATLON_SET) != 0) {
            mode = data.fix.mode;
        }
        if (mode >= MODE_2D && data.satellites_used > 0) {
            printf("mode %d, %d of %d satellites\n", mode, data.satellites_used, data.satellites_visible);
            gps_close(&data);
            return 0;
        }
    }
    return 3;
}
