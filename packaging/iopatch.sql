-- The route table of one relay: which client's messages of which class go to which client.
-- Load it into the database "tessel":  psql -U postgres -d tessel -f iopatch.sql
--
-- Unlogged, because every run of the relay starts by emptying the table: routes need no
-- write-ahead log, and inserting them is quicker without. PostgreSQL empties an unlogged table
-- itself after a crash, which loses nothing that the connection server would not send again.
CREATE UNLOGGED TABLE iopatch (
    -- Client ids are unsigned 32-bit numbers, beyond what integer can hold. The relay reads them
    -- back as decimal text, so the width costs it nothing.
    clientto   bigint  NOT NULL,
    clientfrom bigint  NOT NULL,
    -- The class of message that this route carries, a signed number.
    msgclass   integer NOT NULL,

    -- An order for a route that exists is to fail as a duplicate, which the relay takes as
    -- harmless. The order of the columns lets the constraint's index answer more than that:
    --   WHERE clientfrom = .. AND msgclass = ..    every route look-up, from the index alone
    --                                              since it holds clientto too; removal of all
    --                                              routes of a source for one class
    --   WHERE clientto = .. AND clientfrom = .. AND msgclass = ..    removal of one route
    --   .. OR clientfrom = ..                      one half of "is the client in any route"
    CONSTRAINT iopatch_route UNIQUE (clientfrom, msgclass, clientto)
);

-- What starts from the destination finds no help in the index above:
--   WHERE clientto = .. AND msgclass = ..    removal of all routes to a client for one class
--   WHERE clientto = .. OR ..                the other half of "is the client in any route"
CREATE INDEX iopatch_destination ON iopatch (clientto, msgclass);
