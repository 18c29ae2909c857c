-- A small demo catalogue: load after db/schema.sql into the same, empty database.
-- Codes follow GB28181: 8-digit centre code, 2-digit trade, 3-digit type at positions
-- 11-13 (118 recorder, 131 camera channel, 132 IP camera, 202 media server, 215 business
-- group, 216 virtual organisation), 1-digit network, 6-digit serial. Short codes
-- (two digits a level) are administrative regions. Status bit 0x10000 (65536) marks a
-- node that is off line.

-- Regions: the root (parent 0, no code of its own), two administrative levels, a
-- virtual organisation and a business area that does not use its code.
INSERT INTO region (id, name, parentid, sn, scode, usecode, domainid, regtype) VALUES
  (1, '智能化监控平台', 0, '', '', 0, 1, 0),
  (2, 'Hefei city', 1, '3401', '3401', 1, 1, 0),
  (3, 'Shushan district', 2, '340104', '340104', 1, 1, 0),
  (4, 'Traffic monitoring', 1, '34010000002160000001', '34010000002160000001', 1, 1, 0),
  (5, 'Campus west', 3, '34010000002160000002', '34010000002160000002', 0, 1, 0);

-- The local domain (type 0, the serial of config/cmslocal.xml), a lower domain (type 1,
-- off line) and an upper domain (type 2) that is sent the shared nodes.
INSERT INTO domaininfo (id, name, sn, s_code, p_code, ip, port, port2, videoport, httpport,
                        user, pass, type, linkmode, pushmode, isauth, regionid, parentid,
                        status) VALUES
  (1, 'Local platform', '34020000002000000001', '34020000002000000001', '',
   '127.0.0.1', 7001, 7080, 554, 7080, 'admin', 'admin', 0, 0, 3, 0, 1, 0, 0),
  (2, 'Shushan sub-platform', '34010400002000000001', '34010400002000000001',
   '34020000002000000001', '192.168.10.50', 7001, 7080, 554, 7080, 'admin', 'sub12345',
   1, 0, 3, 1, 3, 1, 65536),
  (3, 'Provincial platform', '34000000002000000001', '34000000002000000001', '',
   '192.168.100.5', 5060, 8080, 554, 8080, 'admin', 'up12345', 2, 0, 0, 1, 1, 0, 0);

-- A media server at the root, one in the district, and an analytics server.
INSERT INTO serverinfo (id, name, svrtype, ip, port, cfgport, sn, username, userpwd, ftype,
                        regionid, status) VALUES
  (1, 'Media server', 1, '192.168.10.10', 554, 8080, '34020000002020000001', 'admin',
   'media123', 0, 1, 0),
  (2, 'District media server', 1, '192.168.10.11', 554, 8080, '34010400002020000001',
   'admin', 'media123', 0, 3, 0),
  (3, 'Analytics server', 3, '192.168.10.20', 8000, 8090, '34020000002030000001', 'admin',
   'intv1234', 3, 2, 0);

-- A recorder and an IP camera in the district, an analytics box in the virtual
-- organisation; the camera is off line.
INSERT INTO device (id, name, sn, scode, ftype, hardwaretype, linktype, ip, port, username,
                    userpwd, regionid, domainid, setalarm, matrixindex, restype, status)
VALUES
  (1, 'Gate recorder', '34010400001180000001', '34010400001180000001', 1, 2, 0,
   '192.168.10.101', 8000, 'admin', 'nvr12345', 3, 1, 1, 0, 0, 0),
  (2, 'Lobby camera', '34010400001320000001', '34010400001320000001', 1, 1, 0,
   '192.168.10.102', 8000, 'admin', 'ipc12345', 3, 1, 0, 0, 0, 65536),
  (3, 'Crossing analytics box', '34010000001180000002', '34010000001180000002', 3, 2, 0,
   '192.168.10.103', 8000, 'admin', 'box12345', 4, 1, 1, 0, 0, 0);

INSERT INTO devicechan (id, devid, chan, name, sn, scode, type, hardwaretype, domainid,
                        eventlevel, ip, port, usr, pwd, ftype, scale, status) VALUES
  (1, 1, 1, 'Gate east', '34010400001310000001', '34010400001310000001', 1, 1, 1, 1,
   '192.168.10.101', 8000, 'admin', 'nvr12345', 1, '16:9', 0),
  (2, 1, 2, 'Gate west', '34010400001310000002', '34010400001310000002', 1, 1, 1, 1,
   '192.168.10.101', 8000, 'admin', 'nvr12345', 1, '16:9', 65536),
  (3, 2, 1, 'Lobby', '34010400001310000003', '34010400001310000003', 1, 1, 1, 0,
   '192.168.10.102', 8000, 'admin', 'ipc12345', 1, '4:3', 65536),
  (4, 3, 1, 'Crossing north', '34010000001310000004', '34010000001310000004', 1, 1, 1, 2,
   '192.168.10.103', 8000, 'admin', 'box12345', 3, '16:9', 0);

-- Cameras assigned to the analytics server.
INSERT INTO serverchan (id, serverid, chan, sindex, name, sn, scode, devid, ip, port, port2,
                        username, userpwd, ftype, status) VALUES
  (1, 3, 1, 1, 'Gate east', '34010400001310000001', '34010400001310000001', 1,
   '192.168.10.101', 8000, 1, 'admin', 'nvr12345', 1, 0),
  (2, 3, 2, 2, 'Crossing north', '34010000001310000004', '34010000001310000004', 4,
   '192.168.10.103', 8000, 1, 'admin', 'box12345', 3, 0);

-- The recorder and the analytics server are registered with the root media server.
INSERT INTO mediaregistor (id, nodeid, nodetype, sn, ip, parentid, parnetid, state) VALUES
  (1, 1, 2, '34010400001180000001', '192.168.10.101', 1, 1, 0),
  (2, 3, 1, '34020000002030000001', '192.168.10.20', 1, 1, 0);

-- Device groups pushed upwards: a business group with a virtual organisation below it.
INSERT INTO devicegroup (id, name, parentId, regionid, scode, grouptype) VALUES
  (1, 'Key areas', 0, 1, '34020000002150000001', 1),
  (2, 'Entrances', 1, 3, '34020000002160000010', 1);

-- Both gate channels and, as a whole device, the lobby camera.
INSERT INTO devicegroupchan (id, groupid, deviceid, DeviceChanId) VALUES
  (1, 2, 1, 1),
  (2, 2, 1, 2),
  (3, 1, 2, 0);

-- Shared with the provincial platform: the recorder and the crossing channel.
INSERT INTO domainsharenode (id, nodeid, nodetype, domainid) VALUES
  (1, 1, 2, 3),
  (2, 4, 3, 3);

INSERT INTO stiffinfo (id, name, faceid, gender, department) VALUES
  (1, 'Zhang Wei', 0, 1, 'Security'),
  (2, 'Li Na', 0, 2, 'Reception');
