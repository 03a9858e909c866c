// The speeds that a serial line may be set to.
#ifndef TAVOR_SERIAL_SPEED_H
#define TAVOR_SERIAL_SPEED_H

#include <cstdint>
#include <termios.h>

struct SerialSpeed {
    int32_t baud; // bits a second
    speed_t speed;
};

// Kept: any other number counts as the first one.
inline constexpr SerialSpeed kSerialSpeeds[] = {
    {115200, B115200}, {110, B110},       {300, B300},       {1200, B1200},   {2400, B2400},
    {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400}, {57600, B57600},
    {230400, B230400}, {460800, B460800}, {921600, B921600},
};

#endif
