#pragma once

// The daemon's own messages in the operators' log, and where the log goes: standard error, each
// line led by its syslog priority ("<3>" for an error) as systemd's journal reads it, or syslog.

#include <string>

#include "platform/Log.h"

namespace Macsec {

extern Zef::LogHandle MKAD_STARTED;
extern Zef::LogHandle MKAD_EMULATED_DATA_PLANE;
extern Zef::LogHandle MKAD_CONFIG_RELOADED;
extern Zef::LogHandle MKAD_CONFIG_CHANGE;
extern Zef::LogHandle MKAD_CONFIG_REFUSED;
extern Zef::LogHandle MKAD_INTF_WAITING;
extern Zef::LogHandle MKAD_INTF_FAILED;
extern Zef::LogHandle MKAD_STOPPED;
extern Zef::LogHandle MKAD_DATA_PLANE_ERROR;
extern Zef::LogHandle MKAD_KERNEL_SELF_TEST_FAILED;
extern Zef::LogHandle MKAD_HANDED_OVER;
extern Zef::LogHandle MKAD_STATE_UNUSABLE;
extern Zef::LogHandle MKAD_STATE_WRITE_FAILED;
extern Zef::LogHandle MKAD_INTF_RESUMED;
extern Zef::LogHandle MKAD_INTF_AFRESH;
extern Zef::LogHandle MKAD_NO_FRAME_DECRYPTS;
extern Zef::LogHandle MKAD_METRICS_WRITE_FAILED;
extern Zef::LogHandle MKAD_KEY_CHAIN_ROLLOVER;
extern Zef::LogHandle MKAD_KEY_CHAIN_NO_KEY;
extern Zef::LogHandle MKAD_KEY_CHAIN_WARNING;
extern Zef::LogHandle MKAD_RADIUS_SOCKET_FAILED;

enum class LogTarget { standardError, syslog };
void operatorLogIs(LogTarget target);

// An error on standard error, before the log runs or instead of it, led by its priority as the
// journal reads it: "<3>mkad: what went wrong".
void errorLine(const std::string& text);

}  // namespace Macsec
