{ The smallest Pascal host of libtarvoafipdriver: one request, the answer on standard output.

  Usage: minimal_host [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [REQUEST_FILE]]]]]]
  A setting left off the command line comes from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD,
  TARVO_SERVICE, TARVO_SERVICE_URL or TARVO_REQUEST; TARVO_SOAP_ACTION adds a SOAPAction line.
  Built with -dTARVO_DYNAMIC it loads the library at run time (TARVO_LIBRARY, else
  libtarvoafipdriver.so.1). The exit status is the result code. }
program minimal_host;

{$IFDEF FPC}{$MODE DELPHI}{$ENDIF}
{$H+}

uses
  SysUtils, Classes, tarvoafip;

const
  Variables: array[1..6] of string = ('TARVO_WSAA_URL', 'TARVO_CERTIFICATE', 'TARVO_PASSWORD',
    'TARVO_SERVICE', 'TARVO_SERVICE_URL', 'TARVO_REQUEST');

function Setting(Position: Integer): RawByteString;
begin
  if Position <= ParamCount then
    Result := ParamStr(Position)
  else
    Result := GetEnvironmentVariable(Variables[Position]);
end;

function ReadWholeFile(const Path: string): RawByteString;
var
  Stream: TFileStream;
begin
  Stream := TFileStream.Create(Path, fmOpenRead or fmShareDenyNone);
  try
    SetLength(Result, Stream.Size);
    if Stream.Size > 0 then
      Stream.ReadBuffer(Result[1], Stream.Size);
  finally
    Stream.Free;
  end;
end;

var
  Request, Answer, Action: RawByteString;
begin
  try
    Request := ReadWholeFile(Setting(6));
  except
    on Error: Exception do
    begin
      WriteLn(ErrOutput, 'minimal_host: cannot read the request: ', Error.Message);
      Halt(66);
    end;
  end;
{$IFDEF TARVO_DYNAMIC}
  if not LoadTarvoAfip then
  begin
    WriteLn(ErrOutput, 'minimal_host: cannot load libtarvoafipdriver');
    Halt(69);
  end;
{$ENDIF}
  WriteLn(ErrOutput, 'minimal_host: libtarvoafipdriver ', TarvoAfipVersion);

  SetWSAA(PAnsiChar(Setting(1)));
  SetWSAACredentials(PAnsiChar(Setting(2)), PAnsiChar(Setting(3)));
  SetWSAAService(PAnsiChar(Setting(4)));
  SetWSUrl(PAnsiChar(Setting(5)));
  Action := GetEnvironmentVariable('TARVO_SOAP_ACTION');
  if Action <> '' then
    AddSOAPHeader(PAnsiChar('SOAPAction: "' + Action + '"'));
  try
    Answer := SendSOAPChecked(Request);
    WriteLn(Answer);
  except
    on Error: ETarvoAfip do
    begin
      WriteLn(ErrOutput, 'minimal_host: ', Error.Message);
      Write(ReceivedSOAPText);
      ExitCode := Error.Code;
    end;
  end;
end.
