// rtsp-streaming-server, from the packages beside the folder that this runs in.
// usage: node node_server.js PUBLISH_PORT CLIENT_PORT
const path = require('path');
const RtspServer = require(path.resolve('node_modules/rtsp-streaming-server')).default;

const [serverPort, clientPort] = process.argv.slice(2).map(Number);
const rtpPortStart = 20000 + serverPort % 2000 * 20;
process.stdin.on('end', () => process.exit(0)).resume();
new RtspServer({serverPort, clientPort, rtpPortStart, rtpPortCount: 20}).start();
