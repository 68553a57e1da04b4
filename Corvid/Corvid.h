// Umbrella header: every public header of the library and its platform.
#pragma once

#include <Brio/Brio.h>
#include <Corvid/CorvidUtils.h>
#include <Corvid/ValueSupport.h>
#include <Corvid/EthAddr.h>
#include <Corvid/Ip.h>
#include <Corvid/MplsLabel.h>
#include <Corvid/MplsLabelStackBase.h>
#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/DynamicMplsLabelStack.h>
#include <Corvid/MplsLabelOperation.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/VrfName.h>
#include <Corvid/VrfIdMap.h>
#include <Corvid/IntfId.h>
#include <Corvid/Port.h>
#include <routing/Vni.h>
#include <routing/Isis.h>
#include <routing/VrfNameAndIp.h>
#include <Corvid/Pkt.h>
#include <Corvid/Checksum.h>
#include <Corvid/PktUtils.h>
#include <routing/Evpn.h>
#include <routing/FlexAlgo.h>
#include <routing/L2Vpn.h>
