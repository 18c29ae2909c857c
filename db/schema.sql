-- Database schema of the central management server.
-- Load into an empty database of your choice, e.g. `mysql cms < db/schema.sql`.
-- Columns allow NULL and carry defaults: several statements name only some columns, and
-- the server reads a NULL as an empty text or 0.
-- Status words are signed 32-bit: the server writes them with %d, and bit 0x10000 is the
-- off-line flag.
-- Times are DATETIME: the server writes unpadded "Y-M-D h:m:s" text and compares it with
-- '<=' (a string column would compare it character by character).

-- ---------------------------------------------------------------- resource catalogue

CREATE TABLE IF NOT EXISTS region (
  id         INT NOT NULL AUTO_INCREMENT,
  name       VARCHAR(100) DEFAULT '',
  parentid   INT DEFAULT 0,
  sn         VARCHAR(64) DEFAULT '',
  scode      VARCHAR(64) DEFAULT '',
  usecode    TINYINT DEFAULT 0,       -- 0: the code is not used, the region is virtual
  domainid   INT DEFAULT 0,
  regtype    INT DEFAULT 0,           -- 254 registration area, 255 non-standard area
  orderindex INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_region_parent (parentid),
  KEY idx_region_scode (scode),
  KEY idx_region_sn (sn)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS device (
  id           INT NOT NULL AUTO_INCREMENT,
  name         VARCHAR(100) DEFAULT '',
  sn           VARCHAR(64) DEFAULT '',
  scode        VARCHAR(64) DEFAULT '',
  ftype        INT DEFAULT 0,          -- make / protocol family; 3 analytics device
  hardwaretype INT DEFAULT 2,          -- 1 camera, 2 recorder
  linktype     INT DEFAULT 0,
  ip           VARCHAR(64) DEFAULT '',
  port         INT DEFAULT 0,
  username     VARCHAR(32) DEFAULT '',
  userpwd      VARCHAR(32) DEFAULT '',
  regionid     INT DEFAULT 0,
  domainid     INT DEFAULT 0,
  setalarm     INT DEFAULT 0,
  matrixindex  INT DEFAULT 0,
  restype      INT DEFAULT 0,
  status       INT DEFAULT 0,
  orderindex   INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_device_sn (sn),
  KEY idx_device_scode (scode),
  KEY idx_device_region (regionid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Video channels of a device; cameras found by a device search land here too.
CREATE TABLE IF NOT EXISTS devicechan (
  id           INT NOT NULL AUTO_INCREMENT,
  devid        INT DEFAULT 0,
  chan         INT DEFAULT 0,
  name         VARCHAR(100) DEFAULT '',
  sn           VARCHAR(64) DEFAULT '',
  scode        VARCHAR(64) DEFAULT '',
  type         INT DEFAULT 1,
  hardwaretype INT DEFAULT 1,          -- 1 video channel
  domainid     INT DEFAULT 0,
  matrixindex  INT DEFAULT 0,
  setalarm     INT DEFAULT 0,
  eventlevel   INT DEFAULT 0,
  mode         INT DEFAULT 0,
  upalarm      INT DEFAULT 0,
  upwarn       INT DEFAULT 0,
  downalarm    INT DEFAULT 0,
  downwarn     INT DEFAULT 0,
  orderindex   INT DEFAULT 0,
  ip           VARCHAR(64) DEFAULT '',
  port         INT DEFAULT 0,
  usr          VARCHAR(32) DEFAULT '',
  pwd          VARCHAR(32) DEFAULT '',
  ftype        INT DEFAULT 0,
  restype      INT DEFAULT 0,
  scale        VARCHAR(16) DEFAULT '',
  stream       INT DEFAULT 0,
  path         VARCHAR(128) DEFAULT '',
  status       INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_devicechan_dev (devid),
  KEY idx_devicechan_sn (sn),
  KEY idx_devicechan_scode (scode)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Media, storage, analytics, face, structuring and IoT servers.
CREATE TABLE IF NOT EXISTS serverinfo (
  id        INT NOT NULL AUTO_INCREMENT,
  name      VARCHAR(100) DEFAULT '',
  svrtype   INT DEFAULT 0,             -- 1 media, 2 storage, 3 analytics, 4 face, ...
  ip        VARCHAR(64) DEFAULT '',
  port      INT DEFAULT 0,
  cfgport   INT DEFAULT 0,             -- HTTP configuration port
  sn        VARCHAR(64) DEFAULT '',
  username  VARCHAR(32) DEFAULT '',
  userpwd   VARCHAR(32) DEFAULT '',
  ftype     INT DEFAULT 0,
  regionid  INT DEFAULT 0,
  parentid  INT DEFAULT 0,
  status    INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_serverinfo_sn (sn),
  KEY idx_serverinfo_region (regionid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Channels of a server: the cameras assigned to an analytics server; `sindex` is the
-- index the server gave the camera.
CREATE TABLE IF NOT EXISTS serverchan (
  id        INT NOT NULL AUTO_INCREMENT,
  serverid  INT DEFAULT 0,
  chan      INT DEFAULT 0,
  sindex    INT DEFAULT 0,
  name      VARCHAR(100) DEFAULT '',
  sn        VARCHAR(64) DEFAULT '',
  scode     VARCHAR(64) DEFAULT '',
  parentsn  VARCHAR(64) DEFAULT '',
  devid     INT DEFAULT 0,             -- source device channel, when it has one
  ip        VARCHAR(64) DEFAULT '',
  port      INT DEFAULT 0,
  port2     INT DEFAULT 0,             -- read as the channel type
  username  VARCHAR(32) DEFAULT '',
  userpwd   VARCHAR(32) DEFAULT '',
  ftype     INT DEFAULT 0,
  stream    INT DEFAULT 0,
  mode      INT DEFAULT 0,
  path      VARCHAR(128) DEFAULT '',
  status    INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_serverchan_server (serverid),
  KEY idx_serverchan_sn (sn)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Domains: this server (type 0), lower (1) and upper (2) cascade peers, registered
-- platforms (3) and devices (4).
CREATE TABLE IF NOT EXISTS domaininfo (
  id        INT NOT NULL AUTO_INCREMENT,
  name      VARCHAR(100) DEFAULT '',
  sn        VARCHAR(64) DEFAULT '',
  s_code    VARCHAR(64) DEFAULT '',
  p_code    VARCHAR(64) DEFAULT '',
  ip        VARCHAR(64) DEFAULT '',
  port      INT DEFAULT 0,
  port2     INT DEFAULT 0,             -- HTTP port
  videoport INT DEFAULT 0,
  httpport  INT DEFAULT 0,
  user      VARCHAR(32) DEFAULT '',
  pass      VARCHAR(32) DEFAULT '',
  type      INT DEFAULT 0,
  linkmode  INT DEFAULT 0,
  pushmode  INT DEFAULT 0,             -- what an upper domain is sent
  isauth    TINYINT DEFAULT 0,
  regionid  INT DEFAULT 0,
  parentid  INT DEFAULT 0,
  status    INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_domaininfo_sn (sn),
  KEY idx_domaininfo_s_code (s_code),
  KEY idx_domaininfo_parent (parentid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Nodes registered with a media server (`parentid`). The registration merge writes the
-- column under the name `parnetid`; both exist so that either statement runs.
CREATE TABLE IF NOT EXISTS mediaregistor (
  id        INT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  sn        VARCHAR(64) DEFAULT '',
  ip        VARCHAR(64) DEFAULT '',
  parentid  INT DEFAULT 0,
  parnetid  INT DEFAULT 0,
  state     INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_mediaregistor_sn (sn)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- ---------------------------------------------------------------- groups and sharing

CREATE TABLE IF NOT EXISTS devicegroup (
  id         INT NOT NULL AUTO_INCREMENT,
  name       VARCHAR(100) DEFAULT '',
  parentId   INT DEFAULT 0,
  regionid   INT DEFAULT 0,
  scode      VARCHAR(64) DEFAULT '',
  grouptype  INT DEFAULT 1,            -- 1: the groups pushed to an upper domain
  orderindex INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_devicegroup_scode (scode),
  KEY idx_devicegroup_type (grouptype)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- A device (DeviceChanId < 1) or a channel in a group.
CREATE TABLE IF NOT EXISTS devicegroupchan (
  id           INT NOT NULL AUTO_INCREMENT,
  groupid      INT DEFAULT 0,
  deviceid     INT DEFAULT 0,
  DeviceChanId INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_devicegroupchan_group (groupid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Devices (nodetype 2) and channels (3) shared with a domain.
CREATE TABLE IF NOT EXISTS domainsharenode (
  id        INT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  domainid  INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_domainsharenode_domain (domainid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- ---------------------------------------------------------------- event and status logs

CREATE TABLE IF NOT EXISTS deveventlog (
  id        BIGINT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  eventtype INT DEFAULT 0,
  descript  VARCHAR(1024) DEFAULT '',
  logtime   DATETIME NULL,
  PRIMARY KEY (id),
  KEY idx_deveventlog_node (nodeid, nodetype),
  KEY idx_deveventlog_logtime (logtime)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS devdiagnoselog (
  id        BIGINT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  eventtype INT DEFAULT 0,
  param     INT DEFAULT 0,
  descript  VARCHAR(1024) DEFAULT '',
  logtime   DATETIME NULL,
  loctime   DATETIME NULL,
  PRIMARY KEY (id),
  KEY idx_devdiagnoselog_node (nodeid, nodetype),
  KEY idx_devdiagnoselog_loctime (loctime)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- The run log has the columns of the diagnosis log.
CREATE TABLE IF NOT EXISTS devrunlog LIKE devdiagnoselog;

-- Analytics alarms from text buffers; `cstatus` 1 marks an alarm an operator confirmed.
CREATE TABLE IF NOT EXISTS intveventlog (
  id        BIGINT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  eventtype INT DEFAULT 0,
  param     INT DEFAULT 0,
  descript  VARCHAR(1024) DEFAULT '',
  logtime   DATETIME NULL,
  loctime   DATETIME NULL,
  cstatus   INT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_intveventlog_node (nodeid, nodetype),
  KEY idx_intveventlog_loctime (loctime),
  KEY idx_intveventlog_cstatus (cstatus)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Analytics alarms that arrived as structured records.
CREATE TABLE IF NOT EXISTS intveventlog2 LIKE intveventlog;

CREATE TABLE IF NOT EXISTS faceeventlog (
  id        BIGINT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  personid  INT DEFAULT 0,
  age       INT DEFAULT 0,
  gender    INT DEFAULT 0,
  alike     INT DEFAULT 0,             -- similarity
  status    INT DEFAULT 0,
  logtime   DATETIME NULL,
  loctime   DATETIME NULL,
  PRIMARY KEY (id),
  KEY idx_faceeventlog_person (personid),
  KEY idx_faceeventlog_loctime (loctime)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS faceeventlog2 LIKE faceeventlog;

-- ---------------------------------------------------------------- analytics configuration

-- Configuration read back from a node, one XML document per node and type.
CREATE TABLE IF NOT EXISTS devicecfg (
  id         INT NOT NULL AUTO_INCREMENT,
  nodeid     INT DEFAULT 0,
  nodetype   INT DEFAULT 0,
  configtype INT DEFAULT 0,
  configure  MEDIUMTEXT,
  PRIMARY KEY (id),
  KEY idx_devicecfg_node (nodeid, nodetype, configtype),
  KEY idx_devicecfg_type (configtype)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- Abilities of an analytics node: its rule catalogue, advanced parameter document, and
-- its models and object kinds.
CREATE TABLE IF NOT EXISTS devicecfgrule (
  id         INT NOT NULL AUTO_INCREMENT,
  nodeid     INT DEFAULT 0,
  nodetype   INT DEFAULT 0,
  name       VARCHAR(100) DEFAULT '',
  pos        INT DEFAULT 0,
  paramsize  INT DEFAULT 0,
  paramnames VARCHAR(1024) DEFAULT '',
  enable     TINYINT DEFAULT 0,
  PRIMARY KEY (id),
  KEY idx_devicecfgrule_node (nodeid, nodetype)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS devicecfgadvc (
  id        INT NOT NULL AUTO_INCREMENT,
  nodeid    INT DEFAULT 0,
  nodetype  INT DEFAULT 0,
  advc      MEDIUMTEXT,
  PRIMARY KEY (id),
  KEY idx_devicecfgadvc_node (nodeid, nodetype)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE TABLE IF NOT EXISTS devicecfgbasedata (
  id         INT NOT NULL AUTO_INCREMENT,
  nodeid     INT DEFAULT 0,
  nodetype   INT DEFAULT 0,
  name       VARCHAR(100) DEFAULT '',
  modetype   INT DEFAULT 0,            -- model type; -1 for an object kind
  mode       INT DEFAULT 0,            -- -1 for an object kind
  objecttype INT DEFAULT 0,            -- object kind; -1 for a model
  PRIMARY KEY (id),
  KEY idx_devicecfgbasedata_node (nodeid, nodetype)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

-- ---------------------------------------------------------------- staff (face registration)

-- Staff whose faces are registered on analytics devices. The registration reads the
-- table as `stiffinfo` and writes the face id back through `staffinfo`: one table, and a
-- view under the second name so that the update lands in it.
CREATE TABLE IF NOT EXISTS stiffinfo (
  id        INT NOT NULL AUTO_INCREMENT,
  name      VARCHAR(64) DEFAULT '',
  faceid    INT DEFAULT 0,
  gender    INT DEFAULT 0,
  idcard    VARCHAR(32) DEFAULT '',
  department VARCHAR(100) DEFAULT '',
  remark    VARCHAR(255) DEFAULT '',
  PRIMARY KEY (id),
  KEY idx_stiffinfo_faceid (faceid)
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;

CREATE OR REPLACE VIEW staffinfo AS
  SELECT id, name, faceid, gender, idcard, department, remark FROM stiffinfo;

-- Replay position of the server's event spool: row 1 holds the sequence number of the last
-- spooled statement written, updated in the same transaction as that statement; row 2 the id
-- of the row it inserted when that row has pictures to store.
CREATE TABLE IF NOT EXISTS spoolcursor (
  id INT NOT NULL PRIMARY KEY,
  seq BIGINT UNSIGNED NOT NULL DEFAULT 0
) ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;
