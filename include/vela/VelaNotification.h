// SPDX-License-Identifier: MIT
#pragma once

// The whole public API of VelaNotification: include this one header.

#include <vela/GeoLocation.h>
#include <vela/VelaConstants.h>
#include <vela/VelaError.h>
#include <vela/VelaExport.h>
#include <vela/VelaGeoLocation.h>
#include <vela/VelaKeyedArchive.h>
#include <vela/VelaKithAccountInfo.h>
#include <vela/VelaLostModeInfo.h>
#include <vela/VelaMainThread.h>
#include <vela/VelaNotificationCenters.h>
#include <vela/VelaNotificationHandsetActions.h>
#include <vela/VelaNotifySession.h>
#include <vela/VelaNotifySessionDelegate.h>
#include <vela/VelaPreferencesUtil.h>
#include <vela/VelaSemaphore.h>
#include <vela/VelaSync.h>
#include <vela/VelaValue.h>
