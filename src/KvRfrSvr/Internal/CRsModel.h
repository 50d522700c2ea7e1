// CRsModel.h - the whole object model, for the export layer and the tool.
#pragma once

#include "CRsConnect.h"
#include "CRsMsg.h"
#include "CRsMsgList.h"
#include "CRsNode.h"
#include "CRsNodeHln.h"
#include "CRsObj.h"
#include "CRsQueue.h"
#include "CRsRefreshInfo.h"
#include "CRsSharedClasses.h"
#include "CRsValue.h"
