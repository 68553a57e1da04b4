// Umbrella header of the framework stand-ins.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Brio/Exception.h>
#include <Brio/Hash.h>
#include <Brio/NboAttrLog.h>
#include <Brio/Ptr.h>
#include <Brio/Record.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <Brio/Types.h>
#include <Fennel/Fennel.h>
#include <Flagset/Flagset.h>
#include <Glimmer/Glimmer.h>
#include <Quay/TimerWheel.h>
#include <Shoal/Shoal.h>
