#pragma once

/// \file
/// The public interface of KQVisitorCore in one include.
///
/// \example hello/main.cpp
/// The smallest host: it runs the main queue, as a host application does, and prints the
/// library's version once a timer on that queue has fired. Built against the installed library
/// with `find_package(KQVisitorCore)` (hello/CMakeLists.txt) or with pkg-config.

#include <KQVisitorCore/KQVisitorCoreVersion.h>

#include <KQVisitorCore/Platform/AlertView.h>
#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Color.h>
#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/DateJSON.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/HTTPHeaderFields.h>
#include <KQVisitorCore/Platform/HTTPRequest.h>
#include <KQVisitorCore/Platform/HTTPResponse.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/HostApplication.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/LocalNotification.h>
#include <KQVisitorCore/Platform/Localization.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Notification.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/PercentEscapes.h>
#include <KQVisitorCore/Platform/Reachability.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Platform/UserDefaults.h>

#include <KQVisitorCore/Model/KQVisitorMessage.h>
#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorRoomTable.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Model/KQVisitorUser.h>

#include <KQVisitorCore/Utilities/ColorKQVisitor.h>
#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/Utilities/MulticastDelegate.h>

#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPCapabilities.h>
#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPReconnectDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPRoster.h>
#include <KQVisitorCore/XMPP/XMPPRosterDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRosterItem.h>
#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>
#include <KQVisitorCore/XMPP/XMPPTLSSettings.h>
#include <KQVisitorCore/XMPP/XMPPvCardAvatarModule.h>
#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPvCardTempModule.h>

#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Network/StringKQVisitorWebService.h>

#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include <KQVisitorCore/Rooms/KQVisitorOutbox.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/RoomsManager.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
