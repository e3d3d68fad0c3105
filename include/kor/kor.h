#pragma once

/// Everything that applications use: a master derives from `KorLogicServer`, a slave from `KorLogicClient`.

#include <kit/jList.h>
#include <kit/jVector.h>
#include <kit/SignalSlot.h>
#include <kor/Client.h>
#include <kor/KorClient.h>
#include <kor/KorCoders.h>
#include <kor/KorData.h>
#include <kor/KorLogicClient.h>
#include <kor/KorLogicServer.h>
#include <kor/KorServer.h>
#include <kor/Record.h>
#include <support/AtomicLock.h>
#include <support/BufferReader.h>
#include <support/BufferWriter.h>
#include <support/CRC.h>
#include <support/jAllocator.h>
#include <support/jKit.h>
#include <support/jLog.h>
#include <support/jString.h>
#include <support/jTimer.h>
#include <support/memInfo.h>
#include <support/profile.h>
#include <support/RTAddr.h>
#include <support/RTHandlers.h>
#include <support/RTNet.h>
#include <support/RTUser.h>
#include <support/SocketUDP.h>
#include <support/Stopwatch.h>
#include <support/vec.h>
